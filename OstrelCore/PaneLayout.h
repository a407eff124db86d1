// Geometry of a pane tree: how a split shares its extent among its children, where each leaf and
// divider lands, and which drop zone a pointer is over. Sizes are in points.
#pragma once

#include "OstrelCore/PaneNode.h"

#include <cstddef>
#include <optional>
#include <vector>

namespace OstrelCore {

struct PaneSize {
    double width = 0;
    double height = 0;

    bool operator==(const PaneSize&) const = default;
};

struct PanePoint {
    double x = 0;
    double y = 0;

    bool operator==(const PanePoint&) const = default;
};

struct PaneRect {
    double x = 0;
    double y = 0;
    double width = 0;
    double height = 0;

    PaneSize size() const { return {width, height}; }
    bool operator==(const PaneRect&) const = default;
};

// A tree laid out in a rectangle: every leaf's frame and every divider's, in leaf order.
struct PaneLayout {
    static constexpr double dividerThickness = 5.0;
    static constexpr double minPaneWidth = 400.0;
    static constexpr double minPaneHeight = 140.0;

    struct Leaf {
        UUID id;
        PaneRect frame;

        bool operator==(const Leaf&) const = default;
    };
    // The divider between children `index` and `index + 1` of a split: what a view drags to
    // change that split's fractions.
    struct Divider {
        UUID splitID;
        std::size_t index = 0;
        PaneAxis axis = PaneAxis::horizontal;
        PaneRect frame;

        bool operator==(const Divider&) const = default;
    };

    std::vector<Leaf> leaves;
    std::vector<Divider> dividers;

    // Frames never leave `bounds`; in a container too small for its dividers, the dividers are
    // cut at its edge and the panes get no room.
    static PaneLayout of(const PaneNode& node, PaneRect bounds);

    static double minimum(PaneAxis axis) {
        return axis == PaneAxis::horizontal ? minPaneWidth : minPaneHeight;
    }

    // Sizes of `count` children sharing `extent`, dividers between them taken out first. Sizes
    // are whole points; the last child takes the remainder so nothing is left at the far end.
    // No child is made smaller than min(minimum, an equal share) while the others can give.
    // Fractions of the wrong number, negative or not finite count as equal shares.
    static std::vector<double> distribute(const std::vector<double>& fractions, std::size_t count,
                                          double extent, double minimum);

    // The size a leaf gets when the tree is laid out in `size`; none for an unknown leaf.
    static std::optional<PaneSize> rect(const PaneNode& node, UUID ofLeaf, PaneSize in);

    // Which part of a pane of size `in` the point is over. The edge bands are offered only when
    // the pane could be halved along that axis without going under the minimum pane size.
    static PaneDropZone dropZone(PanePoint at, PaneSize in);

    bool operator==(const PaneLayout&) const = default;
};

} // namespace OstrelCore
