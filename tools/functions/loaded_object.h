// An object of this process, as the loader describes it while it iterates over all of them.
#ifndef VARN_TOOLS_FUNCTIONS_LOADED_OBJECT_H
#define VARN_TOOLS_FUNCTIONS_LOADED_OBJECT_H

#include <link.h>

#include <string_view>

namespace varn {

using LoadedObject = dl_phdr_info;

// Whether `size` bytes from `address` on lie in one of the object's segments.
bool holds(const LoadedObject& object, ElfW(Addr) address, ElfW(Xword) size);

// Whether the object refers to a function of this name that it does not define.
bool imports(const LoadedObject& object, std::string_view function);

}  // namespace varn

#endif
