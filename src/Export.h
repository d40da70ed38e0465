#ifndef QUORVEX_EXPORT_H
#define QUORVEX_EXPORT_H

/* The library is built with -fvisibility=hidden; QUORVEX_API marks what it
 * exports: the C functions of CApi.h and the public C++ classes. */
#if defined(__GNUC__)
#define QUORVEX_API __attribute__((visibility("default")))
#else
#define QUORVEX_API
#endif

#endif
