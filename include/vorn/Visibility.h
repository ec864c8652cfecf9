// Symbol visibility for the host contract.
//
// The host framework's types cross library boundaries (the host, the host framework library
// and every plug-in see the same classes), so their vtables and type information must be
// visible even when a library is built with -fvisibility=hidden; otherwise a dynamic cast of
// an attribute created by the host would fail inside a plug-in.
#pragma once

#define VORN_API __attribute__((visibility("default")))
