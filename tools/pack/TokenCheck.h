#pragma once

#include <json/value.h>

#include <cstdint>
#include <string>
#include <vector>

namespace ZelPack {

// What in a token's header and claims makes every device refuse it, whoever
// signed it: a missing or mistyped claim, a zero block size or payload size,
// a certificate that does not load. Empty when nothing is wrong.
// `header` and `claims` are objects, as Inspect gives them.
std::vector<std::string> TokenProblems(const Json::Value& header, const Json::Value& claims);

// The number of blocks the claims "blk" and "siz" make; false when they do not.
bool BlockCount(const Json::Value& claims, uint64_t& blocks);

}  // namespace ZelPack
