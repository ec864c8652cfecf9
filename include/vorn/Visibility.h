// Symbol visibility for the classes of namespace vorn: the host contract's and the plug-in's.
//
// These classes cross library boundaries (the host, the host framework library and every plug-in
// see the same classes), so their functions, vtables and type information must be visible even
// though the libraries are built with -fvisibility=hidden; otherwise a dynamic cast of an
// attribute created by the host would fail inside a plug-in. Each library's export list
// (cmake/vorn.map) then keeps everything outside namespace vorn to itself.
#pragma once

#define VORN_API __attribute__((visibility("default")))
