// System calls that bypass the C library: they are not cancellation points, do not call interposed functions
// and leave errno unchanged. They return the kernel's result, a negative errno on failure.
//
// Thread rule: any thread.
#pragma once

#include <sys/syscall.h>

namespace zumod::vcam {

#if defined(__x86_64__)
inline long RawCall(long number, long a = 0, long b = 0, long c = 0, long d = 0, long e = 0, long f = 0) {
    register long r10 __asm__("r10") = d;
    register long r8 __asm__("r8") = e;
    register long r9 __asm__("r9") = f;
    long result = 0;
    __asm__ volatile("syscall"
                     : "=a"(result)
                     : "a"(number), "D"(a), "S"(b), "d"(c), "r"(r10), "r"(r8), "r"(r9)
                     : "rcx", "r11", "memory");
    return result;
}
#elif defined(__aarch64__)
inline long RawCall(long number, long a = 0, long b = 0, long c = 0, long d = 0, long e = 0, long f = 0) {
    register long x8 __asm__("x8") = number;
    register long x0 __asm__("x0") = a;
    register long x1 __asm__("x1") = b;
    register long x2 __asm__("x2") = c;
    register long x3 __asm__("x3") = d;
    register long x4 __asm__("x4") = e;
    register long x5 __asm__("x5") = f;
    __asm__ volatile("svc #0" : "+r"(x0) : "r"(x8), "r"(x1), "r"(x2), "r"(x3), "r"(x4), "r"(x5) : "memory");
    return x0;
}
#else
#error "raw system calls are written for x86-64 and aarch64"
#endif

template <class T>
long Word(T* pointer) {
    return reinterpret_cast<long>(pointer);
}

inline void RawClose(int fd) {
    RawCall(SYS_close, fd);
}

}  // namespace zumod::vcam
