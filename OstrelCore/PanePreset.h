// The ready-made layouts offered next to the user's own templates.
#pragma once

#include "OstrelCore/PaneNode.h"

#include <array>
#include <cstdint>

namespace OstrelCore {

enum class PanePreset : std::uint8_t {
    single,     // one pane
    twoColumns, // two side by side
    twoRows,    // two stacked
    onePlusTwo, // one on the left, two stacked on the right
    grid,       // two rows of two
};

inline constexpr std::array allPanePresets{PanePreset::single, PanePreset::twoColumns, PanePreset::twoRows,
                                           PanePreset::onePlusTwo, PanePreset::grid};

// The preset's tree with fresh ids and empty leaves; every split halves its area.
PaneNode makePaneTree(PanePreset preset);

} // namespace OstrelCore
