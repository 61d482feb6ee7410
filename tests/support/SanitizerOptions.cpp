// The death tests of the allocators ask for more memory than there is and want malloc's null; under a
// sanitizer malloc would end the process with words of its own.

extern "C" {
__attribute__((visibility("default"))) const char* __asan_default_options();
__attribute__((visibility("default"))) const char* __tsan_default_options();

const char* __asan_default_options() { // NOLINT(bugprone-reserved-identifier): the sanitizer names it
    return "allocator_may_return_null=1";
}
const char* __tsan_default_options() { // NOLINT(bugprone-reserved-identifier): the sanitizer names it
    return "allocator_may_return_null=1";
}
}
