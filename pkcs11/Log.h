#ifndef MERROWSTORE_PKCS11_LOG_H
#define MERROWSTORE_PKCS11_LOG_H

// The module name of every log record the PKCS#11 module writes.
#define MSTORE_PKCS11_MODULE "MERROWSTOREPKCS11"

#endif
