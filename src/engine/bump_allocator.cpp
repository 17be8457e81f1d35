#include "engine/bump_allocator.h"

namespace varkesh::lumbrel {

varkesh_lumbrel_bump_malloc bumpMallocHook = nullptr;

} // namespace varkesh::lumbrel
