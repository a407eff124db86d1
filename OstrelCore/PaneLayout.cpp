// Pane layout arithmetic.
#include "OstrelCore/PaneLayout.h"

#include <algorithm>
#include <array>
#include <cmath>

namespace OstrelCore {
namespace {

// Fractions that miss 1 by more than this are scaled to a sum of 1, so that a hand-edited or
// rounded list can't push children past the container.
constexpr double fractionSumTolerance = 1e-6;

struct BandLimits {
    double share;
    double lowest;
    double highest;
};
constexpr BandLimits horizontalBand{0.3, 44.0, 160.0};
constexpr BandLimits verticalBand{0.3, 36.0, 120.0};

double band(double extent, BandLimits limits) {
    return std::clamp(extent * limits.share, limits.lowest, limits.highest);
}

std::vector<double> usableFractions(const std::vector<double>& fractions, std::size_t count) {
    const std::vector<double> equal(count, 1.0 / static_cast<double>(count));
    if (fractions.size() != count) return equal;
    double sum = 0;
    for (double f : fractions) {
        if (!std::isfinite(f) || f < 0) return equal;
        sum += f;
    }
    if (!(sum > 0) || !std::isfinite(sum)) return equal;
    if (std::abs(sum - 1.0) <= fractionSumTolerance) return fractions;
    std::vector<double> scaled = fractions;
    for (double& f : scaled)
        f /= sum;
    return scaled;
}

void layOut(const PaneNode& node, PaneRect bounds, PaneLayout& layout) {
    if (const auto* leaf = node.asLeaf()) {
        layout.leaves.push_back({leaf->id, bounds});
        return;
    }
    const auto& split = *node.asSplit();
    const bool across = split.axis == PaneAxis::horizontal;
    const double start = across ? bounds.x : bounds.y;
    const double extent = across ? bounds.width : bounds.height;
    const double end = start + extent;
    const auto sizes = PaneLayout::distribute(split.fractions, split.children.size(), extent,
                                              PaneLayout::minimum(split.axis));
    auto place = [&](double position, double length) {
        PaneRect frame = bounds;
        (across ? frame.x : frame.y) = position;
        (across ? frame.width : frame.height) = length;
        return frame;
    };
    // Only a container narrower than its dividers needs cutting; elsewhere the sizes add up
    // exactly, and cutting against a running position would only add rounding to the sizes.
    const bool cramped =
        extent < static_cast<double>(split.children.size() - 1) * PaneLayout::dividerThickness;
    auto cut = [&](double length, double position) {
        return cramped ? std::clamp(length, 0.0, std::max(end - position, 0.0)) : length;
    };
    double position = start;
    for (std::size_t i = 0; i < split.children.size(); ++i) {
        const double length = cut(sizes[i], position);
        layOut(split.children[i], place(position, length), layout);
        position += length;
        if (i + 1 < split.children.size()) {
            const double thickness = cut(PaneLayout::dividerThickness, position);
            layout.dividers.push_back({split.id, i, split.axis, place(position, thickness)});
            position += thickness;
        }
    }
}

std::optional<PaneSize> sizeOf(const PaneNode& node, UUID leafID, PaneSize size) {
    if (const auto* leaf = node.asLeaf()) return leaf->id == leafID ? std::optional(size) : std::nullopt;
    const auto& split = *node.asSplit();
    const bool across = split.axis == PaneAxis::horizontal;
    const auto sizes =
        PaneLayout::distribute(split.fractions, split.children.size(), across ? size.width : size.height,
                               PaneLayout::minimum(split.axis));
    for (std::size_t i = 0; i < split.children.size(); ++i) {
        PaneSize childSize = size;
        (across ? childSize.width : childSize.height) = sizes[i];
        if (auto found = sizeOf(split.children[i], leafID, childSize)) return found;
    }
    return std::nullopt;
}

} // namespace

std::vector<double> PaneLayout::distribute(const std::vector<double>& fractions, std::size_t count,
                                           double extent, double minimum) {
    if (count == 0) return {};
    const double dividers = static_cast<double>(count - 1) * dividerThickness;
    double available = extent - dividers;
    if (!(available > 0) || !std::isfinite(available)) available = 0;
    const auto shares = usableFractions(fractions, count);

    std::vector<double> sizes(count, 0.0);
    double remaining = available;
    for (std::size_t i = 0; i + 1 < count; ++i) {
        sizes[i] = std::min(std::floor(available * shares[i]), remaining);
        remaining -= sizes[i];
    }
    // The last child takes the remainder, so rounding never leaves a gap at the far end.
    sizes[count - 1] = std::max(remaining, 0.0);

    // A minimum can't exceed an equal share, or the children couldn't all have it.
    const double floorSize = std::min(std::floor(available / static_cast<double>(count)), minimum);
    for (std::size_t i = 0; i < count; ++i) {
        if (sizes[i] >= floorSize) continue;
        double owed = floorSize - sizes[i];
        sizes[i] = floorSize;
        while (owed > 0) {
            std::size_t largest = count;
            for (std::size_t j = 0; j < count; ++j)
                if (sizes[j] > floorSize && (largest == count || sizes[j] > sizes[largest])) largest = j;
            if (largest == count) break;
            const double taken = std::min(sizes[largest] - floorSize, owed);
            sizes[largest] -= taken;
            owed -= taken;
        }
    }
    return sizes;
}

PaneLayout PaneLayout::of(const PaneNode& node, PaneRect bounds) {
    bounds.width = std::isfinite(bounds.width) ? std::max(bounds.width, 0.0) : 0.0;
    bounds.height = std::isfinite(bounds.height) ? std::max(bounds.height, 0.0) : 0.0;
    PaneLayout layout;
    layOut(node, bounds, layout);
    return layout;
}

std::optional<PaneSize> PaneLayout::rect(const PaneNode& node, UUID ofLeaf, PaneSize in) {
    return sizeOf(node, ofLeaf, in);
}

PaneDropZone PaneLayout::dropZone(PanePoint at, PaneSize in) {
    const double w = in.width;
    const double h = in.height;
    if (!(w > 0) || !(h > 0)) return PaneDropZone::center;
    const double bandX = band(w, horizontalBand);
    const double bandY = band(h, verticalBand);

    struct Candidate {
        PaneDropZone zone;
        double score;
    };
    std::array<Candidate, 4> candidates{};
    std::size_t count = 0;
    if (w * 0.5 >= minPaneWidth) {
        candidates[count++] = {PaneDropZone::leading, at.x / bandX};
        candidates[count++] = {PaneDropZone::trailing, (w - at.x) / bandX};
    }
    if (h * 0.5 >= minPaneHeight) {
        candidates[count++] = {PaneDropZone::top, at.y / bandY};
        candidates[count++] = {PaneDropZone::bottom, (h - at.y) / bandY};
    }
    if (count == 0) return PaneDropZone::center;
    const Candidate* best = &candidates[0];
    for (std::size_t i = 1; i < count; ++i)
        if (candidates[i].score < best->score) best = &candidates[i];
    return best->score < 1.0 ? best->zone : PaneDropZone::center;
}

} // namespace OstrelCore
