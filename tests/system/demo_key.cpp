// The key library of the simulated ECU, which misbehaves as DEMO_KEY in the environment says. With DEMO_CCP
// in its other form, which knows no privilege and is for the privilege 1.
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

namespace {

bool is(const char* mode) {
    const char* const wanted = std::getenv("DEMO_KEY");
    return wanted != nullptr && std::strcmp(wanted, mode) == 0;
}

/// The length of the key.
std::size_t compute(unsigned privilege, std::size_t size, const std::uint8_t* seed, std::uint8_t* key) {
    if (is("crash")) std::abort();
    if (is("sleep")) std::this_thread::sleep_for(std::chrono::hours(1));
    if (is("threads")) std::thread([] { std::this_thread::sleep_for(std::chrono::hours(1)); }).detach();
    if (is("beyond")) std::memset(key, 0, 300);
    if (is("nothing")) return 0;
    std::printf("text of the library\n");
    std::fflush(stdout);
    for (std::size_t i = 0; i < size; ++i)
        key[i] = static_cast<std::uint8_t>((seed[i] ^ 0x5AU) + privilege + i + (is("wrong") ? 1 : 0));
    return size;
}

}  // namespace

#ifdef DEMO_CCP
extern "C" int ASAP1A_CCP_ComputeKeyFromSeed(std::uint8_t* seed, std::uint16_t size, std::uint8_t* key,
                                             std::uint16_t, std::uint16_t* length) {
    *length = is("long") ? 300 : static_cast<std::uint16_t>(compute(1, size, seed, key));
    return is("fail") ? 0 : 1;
}
#else
extern "C" std::uint32_t XCP_GetAvailablePrivileges(std::uint8_t* privileges) {
    *privileges = is("daq only") ? 4 : 0x1D;
    return 0;
}

extern "C" std::uint32_t XCP_ComputeKeyFromSeed(std::uint8_t privilege, std::uint8_t size, std::uint8_t* seed,
                                                std::uint8_t* length, std::uint8_t* key) {
    *length = static_cast<std::uint8_t>(compute(privilege, size, seed, key));
    return is("fail") ? 2 : 0;
}
#endif
