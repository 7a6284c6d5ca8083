// The library's objects that are built while it loads, in the order they must
// be built. They are defined together in this one file because objects of one
// file are constructed in the order of their definitions and destroyed in the
// reverse order, whereas the order between files is unspecified. Every other
// static object of the library is constant-initialised (plain pointers and
// texts, gHistoryTree among them) and so is ready before any of these runs.
//
// 1. gStaticAuthStoreRegistration, the PIN store's registration, comes first
//    and so is torn down last. It joins here, above the data stores, with the
//    PIN store; gHistoryTree is still NULL while it runs.
//
// 2. gStaticDataStoreRegistration creates gHistoryTree, reads the catalogue
//    and registers the data stores; at unload its stores end first.

#include "registration/StaticDataStoreRegistration.h"

QX::DataStore::StaticDataStoreRegistration gStaticDataStoreRegistration;

unsigned int gStoreDebug = 0;
