#ifndef MERROWSTORE_CRYPTO_KEYFILEMASK_H
#define MERROWSTORE_CRYPTO_KEYFILEMASK_H

// The key file of the stores with a persistent key, as the library reads it.
// Header only, so that a provisioning tool can write a key file without
// linking the library.
//
// The file holds the 16 bytes of the AES-128 key, byte i stored XORed with
// KeyFileMask[i]; anything after the first 16 bytes is never read.

// Where the key file lives. The library only reads it.
inline constexpr char KeyFilePath[] =
    "/Library/Frameworks/xk.merrowstore.framework/StoreConfiguration/remanentstore.key";

// The mask XORed over the key bytes in the file.
inline constexpr unsigned char KeyFileMask[16] = {0x5A, 0xC3, 0x17, 0x8E, 0x64, 0xB9, 0x02, 0xD7,
                                                  0x3F, 0xA1, 0x9C, 0x48, 0xE5, 0x70, 0x2B, 0xF6};

#endif
