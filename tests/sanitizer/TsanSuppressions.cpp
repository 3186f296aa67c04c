// ThreadSanitizer's suppressions, compiled into every program of the
// ThreadSanitizer build: the tool that the tests start as a child process
// gets an environment of its own, without TSAN_OPTIONS, and must keep them
// too. Only third-party libraries that are not built with the sanitizer are
// here, each with the reason; races in Kinbook's own code are fixed, never
// suppressed.

extern "C" const char* __tsan_default_suppressions();

extern "C" const char* __tsan_default_suppressions() {
    // libvips (the photo work and the demo's portraits), with GLib, GObject,
    // libjpeg, libpng, zlib and fontconfig under it: vips hands images between its worker
    // threads under GLib's own futex-based locks, which the sanitizer cannot
    // see, so every buffer a worker fills, and the picture it hands back,
    // looks raced.
    return "race:libvips.so\n"
           "race:libglib-2.0.so\n"
           "race:libgobject-2.0.so\n"
           "race:libjpeg.so\n"
           "race:libpng16.so\n"
           "race:libz.so\n"
           "race:libfontconfig.so\n"
           "called_from_lib:libvips.so\n"
           "called_from_lib:libglib-2.0.so\n";
}
