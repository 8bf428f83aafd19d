// What the bench host recorded (kqBenchHost.cpp).
#pragma once

#include <cstddef>
#include <string>

namespace kqbench {

struct HostRecord {
    size_t Commands = 0;       // command lines that a real host would have run
    std::string LastCommand;
    long LiveAllocations = 0;  // KQ_AgentMemZeroAlloc minus KQ_AgentMemFree
    long LiveBytes = 0;        // their usable sizes
};

HostRecord &Record();

}  // namespace kqbench
