// A library that holds no plug-in.
extern "C" __attribute__((visibility("default"))) int zelTestedNothing();

int zelTestedNothing() {
    return 0;
}
