// xcplumo-key LIBRARY PRIVILEGE: computes a key with the shared object of an ECU's maker, for the tool, which
// starts it for each key. So a library that crashes, hangs or starts threads costs a message, not the tool.
// The seed comes as hexadecimal digits on standard input, the key goes to standard output; what is wrong is a
// line on standard error, with exit code 1. It stands alone, and builds for another processor as well:
//
//   arm-linux-gnueabihf-g++ -std=c++20 -O2 -Isrc src/key/main.cpp -ldl -o xcplumo-key-arm
//
// Threads: one, beside those of the library. Lifetime: the library stays loaded to the end.
#include <algorithm>
#include <array>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <elf.h>
#include <fstream>
#include <optional>
#include <string>
#include <unistd.h>
#include <vector>

#include "core/text.h"

namespace {

constexpr std::size_t kLongest = 255;  ///< of a seed and of a key
constexpr std::uint8_t kGuard = 0xA5;
using Bytes = std::vector<std::uint8_t>;
/// A library that goes beyond the end of its buffer does not go beyond this.
using Buffer = std::array<std::uint8_t, 65536 + kLongest>;

using GetPrivileges = std::uint32_t (*)(std::uint8_t* privileges);
using ComputeKey = std::uint32_t (*)(std::uint8_t privilege, std::uint8_t seedLength, std::uint8_t* seed,
                                     std::uint8_t* keyLength, std::uint8_t* key);
using ComputeCcpKey = int (*)(std::uint8_t* seed, std::uint16_t seedLength, std::uint8_t* key,
                              std::uint16_t keySize, std::uint16_t* keyLength);

[[noreturn]] void fail(const std::string& message) {
    std::fprintf(stderr, "%s\n", message.c_str());
    std::fflush(stderr);
    ::_exit(1);  // without what the library has for the end
}

Bytes readSeed() {
    std::string text;
    for (int c = std::getchar(); c != EOF && c != '\n'; c = std::getchar())
        text += static_cast<char>(c);
    Bytes seed;
    for (std::size_t at = 0; at + 1 < text.size(); at += 2) {
        const auto high = lm::hexDigit(text[at]);
        const auto low = lm::hexDigit(text[at + 1]);
        if (!high || !low) fail("the seed on standard input is not hexadecimal");
        seed.push_back(static_cast<std::uint8_t>(*high << 4U | *low));
    }
    if (text.size() % 2 != 0 || seed.empty() || seed.size() > kLongest)
        fail("the seed on standard input has no 1 to 255 bytes");
    return seed;
}

template <typename Function>
Function find(void* library, const char* name) {
    // POSIX promises that the pointer of a function fits.
    return reinterpret_cast<Function>(::dlsym(library, name));  // NOLINT(*-reinterpret-cast)
}

std::string processorName(unsigned machine) {
    switch (machine) {
        case EM_386:
            return "x86 of 32 bits";
        case EM_X86_64:
            return "x86-64";
        case EM_ARM:
            return "ARM of 32 bits";
        case EM_AARCH64:
            return "ARM of 64 bits (aarch64)";
        case EM_PPC:
            return "PowerPC";
        case EM_PPC64:
            return "PowerPC of 64 bits";
        case EM_RISCV:
            return "RISC-V";
        default:
            return "another processor (ELF machine " + std::to_string(machine) + ")";
    }
}

/// The beginning of a file, as far as it tells what the file is for.
std::string headOf(const char* path) {
    std::string head(sizeof(Elf32_Ehdr), '\0');
    std::ifstream file(path, std::ios::binary);
    file.read(head.data(), static_cast<std::streamsize>(head.size()));
    head.resize(static_cast<std::size_t>(file.gcount()));
    return head;
}

/// Nothing when it is no ELF file.
std::optional<unsigned> machineOf(const std::string& head) {
    if (head.size() < sizeof(Elf32_Ehdr) || !head.starts_with(ELFMAG)) return std::nullopt;
    constexpr std::size_t kAt = offsetof(Elf32_Ehdr, e_machine);  // the same in both classes
    const bool bigEndian = head[EI_DATA] == ELFDATA2MSB;
    const auto first = static_cast<std::uint8_t>(head[bigEndian ? kAt : kAt + 1]);
    const auto second = static_cast<std::uint8_t>(head[bigEndian ? kAt + 1 : kAt]);
    return static_cast<unsigned>(first << 8U | second);
}

/// The dynamic linker says of a library for another processor that there is no such file.
std::string whyNotLoaded(const char* path, const std::string& told) {
    const std::string head = headOf(path);
    if (head.starts_with("MZ"))
        return "it is a library for Windows; security.command can name a program that computes the key "
               "instead";
    const auto its = machineOf(head);
    const auto own = machineOf(headOf("/proc/self/exe"));
    if (!its || !own || *its == *own) return told;
    return "it is for " + processorName(*its) + ", and this is " + processorName(*own) +
           "; security.command can run it in an emulator (docs/seed-and-key.md)";
}

std::string reasonOf(std::uint32_t result) {
    switch (result) {
        case 1:
            return "it has no key for this privilege (1)";
        case 2:
            return "it expects a seed of another length (2)";
        case 3:
            return "its key needs more room than 255 bytes (3)";
        default:
            return "it failed with " + std::to_string(result);
    }
}

void checkOffered(void* library, std::uint8_t privilege) {
    const auto offered = find<GetPrivileges>(library, "XCP_GetAvailablePrivileges");
    if (offered == nullptr) return;
    std::uint8_t privileges = 0;
    // One that cannot tell them may have a key all the same.
    if (offered(&privileges) == 0 && (privileges & privilege) == 0)
        fail("XCP_GetAvailablePrivileges: it has no key for privilege " + std::to_string(privilege) +
             ", only for the bits of " + std::to_string(privileges));
}

/// The length of the key, as the library says it.
std::size_t compute(void* library, std::uint8_t privilege, Bytes seed, Buffer& key) {
    if (const auto xcp = find<ComputeKey>(library, "XCP_ComputeKeyFromSeed")) {
        checkOffered(library, privilege);
        std::uint8_t length = kLongest;
        const std::uint32_t result =
            xcp(privilege, static_cast<std::uint8_t>(seed.size()), seed.data(), &length, key.data());
        if (result != 0) fail("XCP_ComputeKeyFromSeed: " + reasonOf(result));
        return length;
    }
    const auto ccp = find<ComputeCcpKey>(library, "ASAP1A_CCP_ComputeKeyFromSeed");
    if (ccp == nullptr)
        fail("the library has neither XCP_ComputeKeyFromSeed nor ASAP1A_CCP_ComputeKeyFromSeed");
    std::uint16_t length = 0;
    if (ccp(seed.data(), static_cast<std::uint16_t>(seed.size()), key.data(), kLongest, &length) == 0)
        fail("ASAP1A_CCP_ComputeKeyFromSeed: it failed");
    return length;
}

}  // namespace

int main(int argc, char** argv) {
    unsigned privilege = 0;
    const char* const end = argc == 3 ? argv[2] + std::strlen(argv[2]) : nullptr;
    if (end == nullptr || std::from_chars(argv[2], end, privilege).ptr != end || privilege == 0 ||
        privilege > UINT8_MAX) {
        std::fprintf(stderr,
                     "usage: xcplumo-key LIBRARY PRIVILEGE\n"
                     "Reads a seed as hexadecimal digits and prints its key. PRIVILEGE: 1 CAL/PAG, 4 DAQ, "
                     "8 STIM, 16 PGM.\n");
        return 2;
    }
    const Bytes seed = readSeed();
    // What the library prints must not pass for the key.
    const int output = ::dup(STDOUT_FILENO);
    if (output < 0 || ::dup2(STDERR_FILENO, STDOUT_FILENO) < 0) fail("no descriptor for standard output");
    void* const library = ::dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) fail(whyNotLoaded(argv[1], ::dlerror()));

    static Buffer key;
    key.fill(kGuard);
    const std::size_t length = compute(library, static_cast<std::uint8_t>(privilege), seed, key);
    const bool isBeyond = length > kLongest || std::any_of(key.begin() + kLongest, key.end(),
                                                           [](std::uint8_t byte) { return byte != kGuard; });
    if (isBeyond) fail("the library went beyond the 255 bytes of the buffer for the key");
    if (length == 0) fail("the library gave a key without a byte");
    std::string text;
    for (std::size_t i = 0; i < length; ++i) {
        text += lm::kHexDigits[key[i] >> 4U];
        text += lm::kHexDigits[key[i] & 0x0FU];
    }
    text += '\n';
    if (::write(output, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
        fail("standard output took no key");
    ::_exit(0);  // whatever threads the library has started
}
