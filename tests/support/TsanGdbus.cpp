// Linked into the tools under the thread sanitizer. They have no threads of their own, but GDBus
// has one, in libraries that are not instrumented, so that their locks are not seen.
extern "C" const char* __tsan_default_suppressions();
extern "C" const char* __tsan_default_suppressions() {  // NOLINT(bugprone-reserved-identifier)
  return "race:libglib-2.0.so\nrace:libgobject-2.0.so\nrace:libgio-2.0.so\n";
}
