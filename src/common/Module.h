#ifndef MERROWSTORE_COMMON_MODULE_H
#define MERROWSTORE_COMMON_MODULE_H

// The module name of every log record the library writes.
#define MSTORE_MODULE "SRVMERROWSTORE"

#endif
