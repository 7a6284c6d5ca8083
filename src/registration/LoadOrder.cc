// The library's objects that are built while it loads, in the order they must
// be built. They are defined together in this one file because objects of one
// file are constructed in the order of their definitions and destroyed in the
// reverse order, whereas the order between files is unspecified. Every other
// static object of the library is constant-initialised (plain pointers and
// texts, gHistoryTree among them) and so is ready before any of these runs.
//
// 1. gStaticAuthStoreRegistration, the PIN store's registration, comes first
//    and so is torn down last. It registers the default PIN store, whose
//    Begin makes a volatile key and a memory tree and never looks at
//    gHistoryTree, which is still NULL while it runs. A failure leaves the
//    library loaded without a PIN store.
//
// 2. gStaticDataStoreRegistration creates gHistoryTree, reads the catalogue
//    and registers the data stores; at unload its stores end first, while the
//    PIN store still exists.
//
// Each constructor that completes registers its object's destructor with
// __cxa_atexit (for the library's own dso handle), and the handlers run last
// registered first, at exit or when dlclose unloads the library.

#include "registration/StaticAuthStoreRegistration.h"
#include "registration/StaticDataStoreRegistration.h"

QX::AuthStore::StaticAuthStoreRegistration gStaticAuthStoreRegistration;

QX::DataStore::StaticDataStoreRegistration gStaticDataStoreRegistration;

unsigned int gStoreDebug = 0;
