// A main for a fuzz target without libFuzzer: every file in the directories
// given goes through the target once, so the test suite checks the seed
// corpora in every build.  A failed check aborts, as under libFuzzer.
#include <dirent.h>

#include <cstdint>
#include <cstdio>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
// Only some targets have it.
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* argc, char*** argv);

int main(int argc, char** argv) {
    if (LLVMFuzzerInitialize) LLVMFuzzerInitialize(&argc, &argv);
    int inputs = 0;
    for (int i = 1; i < argc; ++i) {
        DIR* dir = opendir(argv[i]);
        while (struct dirent* entry = dir ? readdir(dir) : nullptr) {
            std::string path = std::string(argv[i]) + "/" + entry->d_name, data;
            FILE* file = entry->d_name[0] != '.' ? fopen(path.c_str(), "rb") : nullptr;
            if (!file) continue;
            char buffer[4096];
            for (size_t n; (n = fread(buffer, 1, sizeof buffer, file)) > 0;) data.append(buffer, n);
            fclose(file);
            LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(data.data()), data.size());
            ++inputs;
        }
        if (dir) closedir(dir);
    }
    printf("%d inputs\n", inputs);
    return inputs > 0 ? 0 : 1;
}
