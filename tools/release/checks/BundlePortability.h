#pragma once

#include <filesystem>
#include <string>

// What a launcher bundle needs of the system it runs on. Players unpack it anywhere on any current
// x86-64 Linux desktop, so every library it needs must either travel inside it or be one that
// every desktop provides (data/system-libraries.txt), and it may ask no more of the system's C and
// C++ runtimes than the floors the build states. Read from the ELF files themselves: what the
// dynamic loader will ask for, not what a list says the bundle holds.
namespace BundlePortability {

// Empty when every ELF file below `bundle` is x86-64 code and finds each library it needs in the
// bundle (through a RUNPATH relative to itself) or in the system set, with symbol versions of the
// GNU C library and C++ runtime no newer than their floors. Otherwise the first problem, naming
// the file, e.g. "Contents/PlugIns/platforms/libqxcb.so needs libxcb-icccm.so.4, which is neither
// in the bundle nor provided by every desktop". Throws std::runtime_error for a file that cannot
// be read.
std::string problem(const std::filesystem::path& bundle);

// The floors the bundle is held to.
std::string glibcFloor();   // "2.35"
std::string glibcxxFloor(); // "3.4.30"

} // namespace BundlePortability
