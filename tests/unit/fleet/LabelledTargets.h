// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <string>
#include <vector>

#include "fleet/TargetList.h"

namespace FleetTest {

// `count` targets labelled t0, t1, ...: all a guard or the scheduler needs of them.
inline std::vector<Fleet::Target> LabelledTargets(size_t count) {
    std::vector<Fleet::Target> targets(count);
    for (size_t i = 0; i < count; ++i) targets[i].label = "t" + std::to_string(i);
    return targets;
}

}  // namespace FleetTest
