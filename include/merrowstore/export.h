#ifndef MERROWSTORE_EXPORT_H
#define MERROWSTORE_EXPORT_H

// Marks a declaration as part of libmerrowstore's public ABI. Everything else
// is hidden (-fvisibility=hidden).
#define MERROWSTORE_EXPORT __attribute__((visibility("default")))

#endif
