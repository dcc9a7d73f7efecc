# The fuzz targets and the product sources each compiles, relative to the
# tree's root: read by fuzz/CMakeLists.txt (libFuzzer builds) and by
# tests/CMakeLists.txt (every seed corpus replayed in the test suite).
set(KAVORI_FUZZ_TARGETS options command_text bridge origins)
set(KAVORI_FUZZ_SOURCES_options app/options.cpp)
# The plug-in session is stubbed in the target; CopyText comes from the host state.
set(KAVORI_FUZZ_SOURCES_command_text app/start_url.cpp app/host_state.cpp)
# The wire codec and the host's frame loop on it.
set(KAVORI_FUZZ_SOURCES_bridge bridge/bridge_server.cpp bridge/channel.cpp bridge/private_directory.cpp)
set(KAVORI_FUZZ_SOURCES_origins bridge/origins.cpp)
