#ifndef MSTORE_REGISTRY_VALUE_H
#define MSTORE_REGISTRY_VALUE_H

#include <string>
#include <vector>

namespace mstore {

// A full key name as the tool takes it: "HKEY_LOCAL_MACHINE\Software\X".
struct KeyName {
  std::string hive;
  std::string path;  // may be empty: the hive's root
};

// Splits a full key name at its first backslash. False if the hive part is
// not one of the registry's hive texts.
bool ParseKeyName(const std::string& full, KeyName& out);

// Registry type names: none, sz, expand_sz, binary, dword, multi_sz, qword.
const char* TypeName(unsigned int type);
bool ParseTypeName(const std::string& name, unsigned int& type);

// The bytes a value of `type` holds for the texts given on the command line:
// sz one text; multi_sz texts; dword/qword numbers (an array when several);
// binary/none hex digits (blanks allowed). False with `error` set on bad input.
bool EncodeValue(unsigned int type, const std::vector<std::string>& texts, std::vector<unsigned char>& bytes,
                 std::string& error);

// A readable rendering of stored bytes.
std::string RenderValue(unsigned int type, const std::vector<unsigned char>& bytes);

// How a remanent store's value of this type and these bytes reads back as an
// array, e.g. "VT_UI1 vector of 3 elements"; empty when no array comes back.
std::string RenderStoredArray(unsigned int type, const std::vector<unsigned char>& bytes);

// True for keys that hold remanent store values.
bool IsRemanentStoreKey(const KeyName& key);

}  // namespace mstore

#endif
