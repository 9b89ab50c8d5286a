/// The system's read, which fails when a test asks for it: a program that links InjectedRead.cpp
/// reads through it.
#pragma once

#include <functional>

/// Asked before each read of the process where it is set: an error number makes the read fail with
/// it, 0 lets it through.
extern std::function<int()> g_read_error;
