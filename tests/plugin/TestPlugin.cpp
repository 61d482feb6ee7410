#include <zel/InitCallback.h>

// A plug-in for the tests. It counts in variables of the test, whose addresses it is given.

namespace {

int* s_inits = nullptr;
int* s_unloads = nullptr;
int s_initsBeforeConnection = 0;

ZEL_INIT_CALLBACK {
    ++(s_inits != nullptr ? *s_inits : s_initsBeforeConnection);
}

ZEL_STATIC_SHUTDOWN {
    if (s_unloads != nullptr)
        ++*s_unloads;
}

} // namespace

extern "C" {

__attribute__((visibility("default"))) int zelTestAnswer();
__attribute__((visibility("default"))) void zelTestConnect(int* inits, int* unloads);

int zelTestAnswer() {
    return 42;
}

/// From now on `inits` counts the calls of the init callback, those so far included, and `unloads` the
/// unloads.
void zelTestConnect(int* inits, int* unloads) {
    s_inits = inits;
    s_unloads = unloads;
    *s_inits += s_initsBeforeConnection;
    s_initsBeforeConnection = 0;
}

} // extern "C"
