// Lets other Python threads run while this one waits on the plug-in or on a simulator: releases
// the interpreter's lock for the object's lifetime and takes it back when it is destroyed. The
// code in between must not touch Python objects.
#pragma once

#include <Python.h>

namespace kvx::python {

class GilRelease {
 public:
  GilRelease();
  /// Takes the lock back; during interpreter shutdown it never returns instead (see the .cpp).
  ~GilRelease();

  GilRelease(const GilRelease&) = delete;
  GilRelease& operator=(const GilRelease&) = delete;

 private:
  PyThreadState* m_state;
};

}  // namespace kvx::python
