// Linked into every GUI test binary.

#if defined(__SANITIZE_ADDRESS__)
// Qt 5's offscreen platform never frees its screen and cursor. Full stacks let the one
// suppression name where they come from, so no leak of ours is hidden with them.
extern "C" const char* __asan_default_options() {
    return "fast_unwind_on_malloc=0";
}
extern "C" const char* __lsan_default_suppressions() {
    return "leak:QGuiApplicationPrivate::createPlatformIntegration\n";
}
#endif
