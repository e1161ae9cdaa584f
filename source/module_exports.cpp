// module_exports.cpp - the two symbols the loadable module exports.
//
// This file is linked into the module directly, not taken from the static
// core library: the module's link hides every symbol defined in a library, so
// the exported ones must be defined here. The core library holds a copy of
// this file too, which test programs linking only the core pick up.
#include "filtermain.hpp"

extern "C" {

__attribute__((visibility("default"))) KPX_TAVRO g_tavro{};

__attribute__((visibility("default"))) int32_t kpx_main(int32_t message, void* arg1, void* arg2,
                                                        void* arg3) {
    return bfm::ModuleMain(message, arg1, arg2, arg3);
}

}  // extern "C"
