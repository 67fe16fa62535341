#pragma once

#include "tools/pack/CommandLine.h"

namespace ZelPack {

// `zel-pack pack`: the exit code, 2 for inputs that cannot be used.
int RunPack(const PackRequest& request);

}  // namespace ZelPack
