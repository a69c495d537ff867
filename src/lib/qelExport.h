// Symbol visibility of libqelbase.
//
// The library is built with -fvisibility=hidden; only what is marked QEL_EXPORT
// is part of its ABI. Programs that include the headers see the same macro as a
// plain default-visibility attribute, which is harmless.
#ifndef QEL_EXPORT_H
#define QEL_EXPORT_H

#define QEL_EXPORT __attribute__((visibility("default")))

#endif
