#include "ElfFile.h"

#include <gelf.h>
#include <libelf.h>

#include <fcntl.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <sstream>
#include <stdexcept>

namespace {

struct Descriptor {
    int fd;
    ~Descriptor() { ::close(fd); }
};

struct ElfCloser {
    void operator()(Elf* elf) const { elf_end(elf); }
};

std::runtime_error unreadable(const std::string& path) {
    return std::runtime_error(path + ": not a readable ELF file (" + elf_errmsg(-1) + ")");
}

std::string text(Elf* elf, std::size_t table, std::size_t offset) {
    const char* found = elf_strptr(elf, table, offset);
    return found ? found : std::string();
}

void readDynamic(Elf* elf, Elf_Scn* section, const GElf_Shdr& header, ElfFile& file) {
    Elf_Data* data = elf_getdata(section, nullptr);
    if (!data || header.sh_entsize == 0)
        return;
    bool rpath = false;
    bool runpath = false;
    for (std::size_t i = 0; i < header.sh_size / header.sh_entsize; ++i) {
        GElf_Dyn entry;
        if (!gelf_getdyn(data, int(i), &entry))
            break;
        if (entry.d_tag == DT_NEEDED) {
            file.needed.push_back(text(elf, header.sh_link, entry.d_un.d_val));
        } else if (entry.d_tag == DT_RUNPATH || entry.d_tag == DT_RPATH) {
            (entry.d_tag == DT_RPATH ? rpath : runpath) = true;
            std::istringstream paths(text(elf, header.sh_link, entry.d_un.d_val));
            for (std::string path; std::getline(paths, path, ':');)
                if (!path.empty())
                    file.runpath.push_back(path);
        }
    }
    file.inheritedByWhatItLoads = rpath && !runpath;
}

void readVersionNeeds(Elf* elf, Elf_Scn* section, const GElf_Shdr& header, ElfFile& file) {
    Elf_Data* data = elf_getdata(section, nullptr);
    if (!data)
        return;
    std::size_t offset = 0;
    for (std::size_t i = 0; i < header.sh_info; ++i) {
        GElf_Verneed need;
        if (!gelf_getverneed(data, int(offset), &need))
            break;
        const std::string library = text(elf, header.sh_link, need.vn_file);
        std::size_t auxOffset = offset + need.vn_aux;
        for (std::size_t j = 0; j < need.vn_cnt; ++j) {
            GElf_Vernaux aux;
            if (!gelf_getvernaux(data, int(auxOffset), &aux))
                break;
            file.versions.push_back({library, text(elf, header.sh_link, aux.vna_name)});
            if (aux.vna_next == 0)
                break;
            auxOffset += aux.vna_next;
        }
        if (need.vn_next == 0)
            break;
        offset += need.vn_next;
    }
}

} // namespace

std::optional<ElfFile> ElfFile::read(const std::string& path) {
    elf_version(EV_CURRENT);
    const Descriptor fd{::open(path.c_str(), O_RDONLY | O_CLOEXEC)};
    if (fd.fd < 0)
        throw std::runtime_error(path + ": cannot be read: " + std::strerror(errno));
    const std::unique_ptr<Elf, ElfCloser> elf(elf_begin(fd.fd, ELF_C_READ, nullptr));
    if (!elf || elf_kind(elf.get()) != ELF_K_ELF)
        return std::nullopt;
    GElf_Ehdr header;
    if (!gelf_getehdr(elf.get(), &header))
        throw unreadable(path);
    ElfFile file;
    file.x86_64 = header.e_ident[EI_CLASS] == ELFCLASS64 && header.e_ident[EI_DATA] == ELFDATA2LSB &&
                  header.e_machine == EM_X86_64;
    std::size_t segments = 0;
    if (elf_getphdrnum(elf.get(), &segments) != 0)
        throw unreadable(path);
    for (std::size_t i = 0; i < segments; ++i) {
        GElf_Phdr segment;
        if (gelf_getphdr(elf.get(), int(i), &segment) && segment.p_type == PT_INTERP)
            file.program = true;
    }
    for (Elf_Scn* section = elf_nextscn(elf.get(), nullptr); section;
         section = elf_nextscn(elf.get(), section)) {
        GElf_Shdr sectionHeader;
        if (!gelf_getshdr(section, &sectionHeader))
            throw unreadable(path);
        if (sectionHeader.sh_type == SHT_DYNAMIC)
            readDynamic(elf.get(), section, sectionHeader, file);
        else if (sectionHeader.sh_type == SHT_GNU_verneed)
            readVersionNeeds(elf.get(), section, sectionHeader, file);
    }
    return file;
}
