/*
 * Stops at the probes of a loaded file, on x86-64, as a tracer does: a breakpoint takes the place of each probe's
 * instruction that does nothing, and its values are read from where the note in the file says.
 */
#ifndef TESTS_SUPPORT_PROBE_WATCH_H
#define TESTS_SUPPORT_PROBE_WATCH_H

#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <elf.h>
#include <fstream>
#include <link.h>
#include <map>
#include <regex>
#include <stdexcept>
#include <string>
#include <sys/mman.h>
#include <ucontext.h>
#include <utility>
#include <vector>

namespace probe_test {

struct probe {
    std::string name;
    std::uintptr_t location = 0; /* in the file, or where it was loaded */
    std::uint64_t semaphore = 0;
    std::vector<std::string> values; /* where each is: SIZE@OPERAND */
};

/* A probe that was passed: its name, and its values. */
using passed = std::pair<std::string, std::vector<std::uint64_t>>;

/* The probes of a file, as its notes have them. */
inline std::vector<probe> probes_in(const std::string &path, const std::string &provider)
{
    std::ifstream file(path, std::ios::binary);
    const auto text_at = [&file](std::size_t offset, std::size_t size) {
        std::string text(size, '\0');
        file.seekg(static_cast<std::streamoff>(offset));
        file.read(text.data(), static_cast<std::streamsize>(size));
        if (!file)
            throw std::runtime_error("not a whole ELF file");
        return text;
    };
    const auto at = [&text_at]<typename Type>(std::size_t offset, Type value) {
        std::memcpy(&value, text_at(offset, sizeof value).data(), sizeof value);
        return value;
    };
    const auto header = at(0, Elf64_Ehdr{});
    const auto section = [&](std::size_t number) {
        return at(header.e_shoff + number * header.e_shentsize, Elf64_Shdr{});
    };
    const auto names_at = section(header.e_shstrndx);
    const std::string names = text_at(names_at.sh_offset, names_at.sh_size);
    std::vector<probe> found;
    for (std::size_t number = 0; number < header.e_shnum; ++number) {
        const auto notes = section(number);
        if (std::string(names.c_str() + notes.sh_name) != ".note.stapsdt")
            continue;
        for (std::size_t place = notes.sh_offset; place < notes.sh_offset + notes.sh_size;) {
            const auto note = at(place, Elf64_Nhdr{});
            const std::size_t description = place + sizeof note + (note.n_namesz + 3) / 4 * 4;
            const std::string text = text_at(description + 24, note.n_descsz - 24);
            const std::string of = text.c_str();
            const std::string name = text.c_str() + of.size() + 1;
            std::string values = text.c_str() + of.size() + name.size() + 2;
            probe made{name, at(description, std::uintptr_t{}), at(description + 16, std::uint64_t{}), {}};
            for (std::size_t end = 0; !values.empty(); values.erase(0, end + 1)) {
                end = std::min(values.find(' '), values.size() - 1);
                made.values.push_back(values.substr(0, values.find(' ')));
            }
            if (of == provider)
                found.push_back(made);
            place = description + (note.n_descsz + 3) / 4 * 4;
        }
    }
    return found;
}

class probe_watch {
public:
    /* Of the loaded file whose name has `file` in it; "" is the program itself. */
    probe_watch(const std::string &file, const std::string &provider)
    {
        std::pair<const std::string, std::pair<std::string, std::uintptr_t>> loaded{file, {}};
        dl_iterate_phdr(
            [](dl_phdr_info *about, std::size_t, void *argument) {
                auto &[wanted, result] = *static_cast<decltype(loaded) *>(argument);
                const std::string name = about->dlpi_name;
                if (wanted.empty() ? !name.empty() : name.find(wanted) == std::string::npos)
                    return 0;
                result = {name.empty() ? "/proc/self/exe" : name, about->dlpi_addr};
                return 1;
            },
            &loaded);
        const auto &[path, base] = loaded.second;
        all = probes_in(path, provider);
        for (probe &each : all) {
            each.location += base;
            s_at[each.location] = each;
        }
        struct sigaction action {};
        action.sa_sigaction = stopped;
        action.sa_flags = SA_SIGINFO;
        sigaction(SIGTRAP, &action, &m_before);
        write(nop, breakpoint);
    }
    ~probe_watch()
    {
        write(breakpoint, nop);
        sigaction(SIGTRAP, &m_before, nullptr);
        s_at.clear();
        s_passed.clear();
    }
    probe_watch(const probe_watch &) = delete;
    probe_watch &operator=(const probe_watch &) = delete;

    std::vector<probe> all;

    /* What was passed since the last call, in order; of the probes named, or of all. */
    std::vector<passed> take(const std::string &only = ".*")
    {
        std::vector<passed> result;
        for (const passed &each : std::exchange(s_passed, {})) {
            if (std::regex_match(each.first, std::regex(only)))
                result.push_back(each);
        }
        return result;
    }

private:
    static constexpr std::uint8_t nop = 0x90;
    static constexpr std::uint8_t breakpoint = 0xcc;

    void write(std::uint8_t from, std::uint8_t to)
    {
        constexpr std::uintptr_t page = 4096;
        for (const probe &each : all) {
            auto *const code = reinterpret_cast<std::uint8_t *>(each.location);
            void *const begin = reinterpret_cast<void *>(each.location / page * page);
            if (*code != from)
                throw std::runtime_error(each.name +
                                         " is not an instruction that does nothing: is a tracer at it?");
            if (mprotect(begin, page, PROT_READ | PROT_WRITE | PROT_EXEC) != 0)
                throw std::runtime_error("code cannot be written here: " + std::string(strerror(errno)));
            *code = to;
            mprotect(begin, page, PROT_READ | PROT_EXEC);
        }
    }

    static std::uint64_t in_register(const ucontext_t &state, std::string name)
    {
        static const std::map<std::string, int> registers = {
            {"ax", REG_RAX}, {"bx", REG_RBX}, {"cx", REG_RCX}, {"dx", REG_RDX}, {"si", REG_RSI},
            {"di", REG_RDI}, {"bp", REG_RBP}, {"sp", REG_RSP}, {"8", REG_R8},   {"9", REG_R9},
            {"10", REG_R10}, {"11", REG_R11}, {"12", REG_R12}, {"13", REG_R13}, {"14", REG_R14},
            {"15", REG_R15}, {"al", REG_RAX}, {"bl", REG_RBX}, {"cl", REG_RCX}, {"dl", REG_RDX}};
        static const std::regex parts("[re]?([a-d]l|[a-ds][xip]|di|bp|[0-9]+)[dwbl]?");
        std::smatch found;
        if (!std::regex_match(name, found, parts))
            throw std::runtime_error("no register: " + name);
        return static_cast<std::uint64_t>(state.uc_mcontext.gregs[registers.at(found[1])]);
    }

    static std::uint64_t value_at(const ucontext_t &state, const std::string &text)
    {
        static const std::regex whole(
            R"(-?(\d)@(?:\$(-?\d+)|%(\w+)|(-?\d*)\(%(\w+)(?:,%(\w+)(?:,(\d))?)?\)))");
        std::smatch found;
        if (!std::regex_match(text, found, whole))
            throw std::runtime_error("no value: " + text);
        const std::size_t size = std::stoul(found[1]);
        std::uint64_t value = 0;
        if (found[2].matched) {
            value = static_cast<std::uint64_t>(std::stoll(found[2]));
        } else if (found[3].matched) {
            value = in_register(state, found[3]);
        } else {
            std::uint64_t address = in_register(state, found[5]);
            address += found[4].length() > 0 ? static_cast<std::uint64_t>(std::stoll(found[4])) : 0;
            if (found[6].matched)
                address += in_register(state, found[6]) * (found[7].matched ? std::stoul(found[7]) : 1);
            std::memcpy(&value, reinterpret_cast<const void *>(address), size);
        }
        return size == 8 ? value : value & ((std::uint64_t{1} << 8 * size) - 1);
    }

    /* At a place of the program's own, so whatever memory it takes is not being given out meanwhile. */
    static void stopped(int, siginfo_t *, void *context)
    {
        const auto &state = *static_cast<const ucontext_t *>(context);
        const probe &at = s_at.at(static_cast<std::uintptr_t>(state.uc_mcontext.gregs[REG_RIP]) - 1);
        passed made{at.name, {}};
        for (const std::string &value : at.values)
            made.second.push_back(value_at(state, value));
        s_passed.push_back(made);
    }

    struct sigaction m_before {};
    static inline std::map<std::uintptr_t, probe> s_at;
    static inline std::vector<passed> s_passed;
};

} // namespace probe_test

#endif
