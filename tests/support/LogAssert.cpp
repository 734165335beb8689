// The test programs define liblog's assertion entry point, so that a death
// test sees the condition text as well as the message (liblog prints only the
// message). It writes both to stderr and aborts, as liblog does.
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

extern "C" void __android_log_assert(const char* cond, const char* tag, const char* fmt, ...) {
    char message[1024] = "";
    if (fmt != nullptr) {
        va_list args;
        va_start(args, fmt);
        vsnprintf(message, sizeof(message), fmt, args);
        va_end(args);
    }
    fprintf(stderr, "FATAL tag=%s cond=[%s] msg=[%s]\n", tag ? tag : "", cond ? cond : "", message);
    fflush(stderr);
    abort();
}
