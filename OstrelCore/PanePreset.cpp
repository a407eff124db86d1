// Builds the preset layouts.
#include "OstrelCore/PanePreset.h"

namespace OstrelCore {
namespace {

PaneNode halves(PaneAxis axis, PaneNode first, PaneNode second) {
    return PaneNode(
        PaneNode::SplitPayload{UUID::random(), axis, {std::move(first), std::move(second)}, {0.5, 0.5}});
}

} // namespace

PaneNode makePaneTree(PanePreset preset) {
    switch (preset) {
    case PanePreset::single: return PaneNode::emptyLeaf();
    case PanePreset::twoColumns:
        return halves(PaneAxis::horizontal, PaneNode::emptyLeaf(), PaneNode::emptyLeaf());
    case PanePreset::twoRows: return halves(PaneAxis::vertical, PaneNode::emptyLeaf(), PaneNode::emptyLeaf());
    case PanePreset::onePlusTwo:
        return halves(PaneAxis::horizontal, PaneNode::emptyLeaf(),
                      halves(PaneAxis::vertical, PaneNode::emptyLeaf(), PaneNode::emptyLeaf()));
    case PanePreset::grid:
        return halves(PaneAxis::vertical,
                      halves(PaneAxis::horizontal, PaneNode::emptyLeaf(), PaneNode::emptyLeaf()),
                      halves(PaneAxis::horizontal, PaneNode::emptyLeaf(), PaneNode::emptyLeaf()));
    }
    return PaneNode::emptyLeaf();
}

} // namespace OstrelCore
