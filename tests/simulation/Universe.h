// The names and numbers of which simulated clusters are made. Steps name them by their place, so that a step
// means the same whatever steps stand before it.
#pragma once

#include <array>
#include <cstdint>
#include <string_view>

namespace Simulation {

// Directory keys. Up to kPlainKeys each spells a member of its own (or, "abc", none at all, which is member
// 0); those after them spell a member that another one spells, too.
inline constexpr size_t kPlainKeys = 7;
inline constexpr std::array<std::string_view, 16> kKeys = {
    "1",  "2",   "3",  "4",  "200", "abc", "255",  //
    "01", "001", "02", "+1", "",    "256", "0",   " 1", "3 nbr=2"};

inline constexpr std::array<uint8_t, 6> kMembers = {1, 2, 3, 4, 200, 0};

// Interfaces. The first kBackplanes are backplane channel interfaces.
inline constexpr size_t kBackplanes = 6;
inline constexpr std::array<std::string_view, 10> kInterfaces = {
    "Backplane1/1", "Backplane1/2", "Backplane2/1", "Backplane2/3", "Backplane9",
    "Backplane0x",  "Ethernet1",    "Backplane",    "Backplanes1",  ""};

inline constexpr std::array<uint32_t, 10> kIfIndexes = {1001, 1002, 2001,       2002,       1,
                                                        7,    0,    0x7fffffff, 0x80000000, 0xffffffff};

inline constexpr std::array<uint32_t, 6> kProcessors = {0, 1, 2, 768, 0x80000000, 0xffffffff};

inline constexpr std::array<std::string_view, 6> kMounts = {"/",        "/var", "/boot",
                                                            "/mnt/a b", "",     "/a storageOpt=None"};

inline constexpr std::array<int32_t, 6> kMemoryKinds = {1, 2, 3, 100, -5, 0};

// As many as there are mount points and kinds of memory.
inline constexpr std::array<uint32_t, 12> kStorageIndexes = {31, 32, 33, 0,   0x80000000, 0xffffffff,
                                                             1,  2,  3,  100, 4,          5};

}  // namespace Simulation
