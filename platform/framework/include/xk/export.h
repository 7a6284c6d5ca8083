#ifndef XK_EXPORT_H
#define XK_EXPORT_H

// Marks a declaration as part of a platform library's public ABI. Everything
// else is hidden (-fvisibility=hidden).
#define XK_EXPORT __attribute__((visibility("default")))

#endif
