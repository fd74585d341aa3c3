#pragma once

#include <optional>
#include <string>
#include <vector>

// What the dynamic loader reads of a shared object or an executable: its machine, the libraries it
// needs, where it asks for them and which symbol versions of them it needs. Read with elfutils'
// libelf, which checks every offset against the file.
struct ElfFile {
    bool x86_64 = false; // 64-bit, little-endian, x86-64
    std::vector<std::string> needed;  // DT_NEEDED sonames, in order
    std::vector<std::string> runpath; // DT_RUNPATH (or the older DT_RPATH) entries, as written
    // True when those entries are a DT_RPATH and there is no DT_RUNPATH: the loader then also
    // searches them for whatever the objects this one loads need, unless those have a RUNPATH.
    bool inheritedByWhatItLoads = false;
    bool program = false; // an executable the kernel starts (it names an interpreter)
    // The symbol versions it needs, each with the soname that must define it ("libc.so.6",
    // "GLIBC_2.34").
    struct Version {
        std::string library;
        std::string name;
    };
    std::vector<Version> versions;

    // The ELF file at `path`; nothing when it is not an ELF file. Throws std::runtime_error when it
    // is one that cannot be read.
    static std::optional<ElfFile> read(const std::string& path);
};
