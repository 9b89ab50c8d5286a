/// Shared code of the tests that read consoles of fwpush.
#pragma once

/// How the console of a burn begins, and how that of a generic one goes on.
inline constexpr char PREAMBLE[] =
    " FwImage Status (loaded from a.img):\n"
    "-D- main:1: GetRomInterface, using chunks of 32 bytes\n"
    "-D- main:2: Openning rom interface (PPC:h:1).\n"
    "-D- RomInterface:3: Interface verson of server PPC:h:1: 2.2\n";
inline constexpr char GENERIC[] =
    "-D- main:4: Running burn algorithm: GenericBurn\n"
    "-I- Generic Burning:\n"
    "\r\\ Burning  - % 0";
