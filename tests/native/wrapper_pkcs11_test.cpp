#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "native/wrapper_pkcs11.h"
#include "tests/native/native_support.h"

using namespace kvotest;
using Lines = std::vector<std::string>;

TEST(WrapperPKCS11, NestedInitializeReachesSoftHsmOnce) {
    SoftHsm softHsm;
    CWrapperPKCS11 wrapper;
    EXPECT_EQ(wrapper.Finalize(nullptr), CKR_CRYPTOKI_NOT_INITIALIZED);
    ASSERT_TRUE(wrapper.Load(softHsm.path().c_str()));
    ASSERT_EQ(wrapper.Initialize(nullptr), CKR_OK);
    // A second C_Initialize would have been answered 0x191 and turned the
    // count back to 1; the module going down early would show it.
    ASSERT_EQ(wrapper.Initialize(nullptr), CKR_OK);
    EXPECT_EQ(wrapper.InitCount(), 2);
    EXPECT_EQ(wrapper.Finalize(nullptr), CKR_OK);
    EXPECT_EQ(SoftHsm::ModuleState(), CKR_OK);
    EXPECT_EQ(wrapper.Finalize(nullptr), CKR_OK);
    EXPECT_EQ(SoftHsm::ModuleState(), CKR_CRYPTOKI_NOT_INITIALIZED);
    EXPECT_EQ(wrapper.Finalize(nullptr), CKR_CRYPTOKI_NOT_INITIALIZED);
}

TEST(WrapperPKCS11, SoftHsmLacksTheExtensions) {
    SoftHsm softHsm;
    CWrapperPKCS11 wrapper;
    EXPECT_EQ(wrapper.SetVariable("kvoconfigglobal", "/etc/kvo.conf"), CKR_FUNCTION_NOT_SUPPORTED);  // not loaded
    ASSERT_TRUE(wrapper.Load(softHsm.path().c_str()));
    EXPECT_EQ(wrapper.SetTraceCallback(nullptr), CKR_FUNCTION_NOT_SUPPORTED);
    EXPECT_EQ(wrapper.SetVariable("kvoconfigglobal", "/etc/kvo.conf"), CKR_FUNCTION_NOT_SUPPORTED);
    EXPECT_EQ(wrapper.GetVariable(nullptr, nullptr, nullptr), CKR_FUNCTION_NOT_SUPPORTED);
    EXPECT_EQ(wrapper.AddExternalSlot(nullptr, nullptr, nullptr), CKR_FUNCTION_NOT_SUPPORTED);
    EXPECT_EQ(wrapper.RemoveExternalSlot(nullptr), CKR_FUNCTION_NOT_SUPPORTED);
}

TEST(WrapperPKCS11, SecondLoadKeepsTheFirstModule) {
    SoftHsm softHsm;
    CWrapperPKCS11 wrapper;
    ASSERT_TRUE(wrapper.Load(softHsm.path().c_str()));
    EXPECT_TRUE(wrapper.Load(ModuleDir("recording").c_str()));
    EXPECT_TRUE(wrapper.Load("/nonexistent/"));
    // Still SoftHSM: the recording module would accept the variable.
    EXPECT_EQ(wrapper.SetVariable("a", "b"), CKR_FUNCTION_NOT_SUPPORTED);
}

TEST(WrapperPKCS11, ModuleInitialisedElsewhereIsNotFinalised) {
    SoftHsm softHsm;
    CK_FUNCTION_LIST_PTR direct = SoftHsm::DirectList();
    ASSERT_EQ(direct->C_Initialize(nullptr), CKR_OK);
    {
        CWrapperPKCS11 wrapper;
        ASSERT_TRUE(wrapper.Load(softHsm.path().c_str()));
        EXPECT_EQ(wrapper.Initialize(nullptr), CKR_OK);  // SoftHSM answered 0x191
        EXPECT_EQ(wrapper.InitCount(), 1);
        EXPECT_EQ(wrapper.Finalize(nullptr), CKR_OK);
        EXPECT_EQ(wrapper.Finalize(nullptr), CKR_CRYPTOKI_NOT_INITIALIZED);
    }
    EXPECT_EQ(SoftHsm::ModuleState(), CKR_OK);
    EXPECT_EQ(direct->C_Finalize(nullptr), CKR_OK);
}

TEST(WrapperPKCS11, ForwardsToTheModuleExtensions) {
    CallRecord record;
    CWrapperPKCS11 wrapper;
    ASSERT_TRUE(wrapper.Load(ModuleDir("recording").c_str()));
    EXPECT_EQ(wrapper.SetTraceCallback(nullptr), CKR_OK);
    EXPECT_EQ(wrapper.SetVariable("name", "a=b"), CKR_OK);
    EXPECT_EQ(wrapper.GetVariable((void*)1, (void*)2, (void*)3), 0x1001u);
    EXPECT_EQ(wrapper.AddExternalSlot((void*)4, (void*)5, (void*)6), 0x1002u);
    EXPECT_EQ(wrapper.RemoveExternalSlot((void*)7), 0x1003u);
    EXPECT_EQ(wrapper.Initialize(nullptr), CKR_OK);
    EXPECT_EQ(wrapper.Finalize(nullptr), CKR_OK);
    EXPECT_EQ(record.Lines(), (Lines{"C_SetTraceCallback null", "C_SetVariable name=a=b", "C_GetVariable 1 2 3",
                                     "C_AddExternalSlot 4 5 6", "C_RemoveExternalSlot 7", "C_Initialize",
                                     "C_Finalize"}));
}

TEST(WrapperPKCS11, UnloadForgetsModuleAndCount) {
    CallRecord record;
    CWrapperPKCS11 wrapper;
    ASSERT_TRUE(wrapper.Load(ModuleDir("recording").c_str()));
    ASSERT_EQ(wrapper.Initialize(nullptr), CKR_OK);
    wrapper.Unload();
    EXPECT_EQ(wrapper.InitCount(), 0);
    EXPECT_EQ(wrapper.Finalize(nullptr), CKR_CRYPTOKI_NOT_INITIALIZED);
    EXPECT_EQ(wrapper.SetVariable("a", "b"), CKR_FUNCTION_NOT_SUPPORTED);
    EXPECT_EQ(record.Lines(), (Lines{"C_Initialize"}));  // Unload does not finalise
}

TEST(WrapperPKCS11, MissingFunctionListKeepsTheHandle) {
    CallRecord record;
    CWrapperPKCS11 wrapper;
    EXPECT_FALSE(wrapper.Load(ModuleDir("no_function_list").c_str()));
    EXPECT_TRUE(wrapper.Load(ModuleDir("recording").c_str()));  // handle held: nothing opened
    EXPECT_EQ(wrapper.Initialize(nullptr), CKR_GENERAL_ERROR);
    EXPECT_EQ(wrapper.SetVariable("a", "b"), CKR_OK);  // extensions are bound all the same
    EXPECT_EQ(record.Lines(), (Lines{"C_SetVariable a=b"}));
}

TEST(WrapperPKCS11, FailingInitializeIsPassedThrough) {
    CWrapperPKCS11 wrapper;
    EXPECT_FALSE(wrapper.Load("/nonexistent/"));
    ASSERT_TRUE(wrapper.Load(ModuleDir("init_fails").c_str()));  // a failed Load retains nothing
    EXPECT_EQ(wrapper.Initialize(nullptr), CKR_GENERAL_ERROR);
    EXPECT_EQ(wrapper.InitCount(), 0);
    EXPECT_EQ(wrapper.Finalize(nullptr), CKR_CRYPTOKI_NOT_INITIALIZED);
}

TEST(WrapperPKCS11, OverlongPathIsCut) {
    // A directory of 250 characters leaves room for "libkv" only.
    TempDir base;
    std::string directory = base.path() + "/";
    directory += std::string(249 - directory.size(), 'd') + "/";
    ASSERT_EQ(directory.size(), 250u);
    ASSERT_EQ(mkdir(directory.c_str(), 0700), 0);
    ASSERT_EQ(symlink(ModuleFile("recording").c_str(), (directory + "libkv").c_str()), 0);
    CWrapperPKCS11 wrapper;
    EXPECT_TRUE(wrapper.Load(directory.c_str()));
    EXPECT_EQ(wrapper.SetVariable("a", "b"), CKR_OK);
}
