/* A PKCS#11 module for the parameter fuzzer: just enough for the module
 * wrapper to load it, and C_SetVariable hands every pair to the fuzzer. */
#include <stddef.h>

#include <p11-kit/pkcs11.h>

#define EXPORT __attribute__((visibility("default")))

typedef void (*VariableSink)(const char* name, const char* value);
static VariableSink s_sink;

static CK_FUNCTION_LIST s_functionList = {.version = {2, 40}};

EXPORT CK_RV C_GetFunctionList(CK_FUNCTION_LIST_PTR_PTR list) {
    if (list == NULL) return CKR_ARGUMENTS_BAD;
    *list = &s_functionList;
    return CKR_OK;
}

EXPORT void kvo_fuzz_set_sink(VariableSink sink) { s_sink = sink; }

EXPORT CK_RV C_SetVariable(const char* name, const char* value) {
    if (s_sink != NULL) s_sink(name, value);
    /* Refuse some names so both of the host's branches run. */
    return name != NULL && name[0] == '!' ? CKR_GENERAL_ERROR : CKR_OK;
}
