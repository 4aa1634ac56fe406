// Assembler internals reachable from the tests.
#pragma once

#include <cstddef>

namespace tevix::stream {

// Allocator of frame nodes (malloc by default); tests install one that fails. Not thread-safe:
// set it while no assembler is being fed. nullptr restores malloc.
using node_alloc_fn = void *(*)(size_t bytes);
void set_node_alloc(node_alloc_fn fn);

}  // namespace tevix::stream
