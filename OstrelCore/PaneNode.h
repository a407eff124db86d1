// The pane tree of a project: leaves hold at most one session, splits divide their area along one
// axis by fractions. A pure value; every operation returns a new tree and leaves this one alone.
#pragma once

#include "OstrelCore/UUID.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include <nlohmann/json_fwd.hpp>

namespace OstrelCore {

// horizontal: children side by side, the width is divided; vertical: children stacked.
enum class PaneAxis : std::uint8_t { horizontal, vertical };

std::string_view rawValue(PaneAxis axis);
std::optional<PaneAxis> paneAxis(std::string_view rawValue);

enum class PaneDropZone : std::uint8_t { center, leading, trailing, top, bottom };

struct PaneNode {
    struct LeafPayload {
        UUID id;
        std::optional<UUID> sessionID;

        bool operator==(const LeafPayload&) const = default;
    };
    struct SplitPayload {
        UUID id;
        PaneAxis axis = PaneAxis::horizontal;
        std::vector<PaneNode> children;
        std::vector<double> fractions; // one per child

        bool operator==(const SplitPayload&) const = default;
    };

    // Nesting stops here: a split that would put a leaf deeper is refused, and a decoded tree
    // that is deeper counts as damaged. Far more than a screen can show, and it bounds the
    // recursion of every walk over foreign data.
    static constexpr std::size_t maxDepth = 32;

    std::variant<LeafPayload, SplitPayload> payload;

    PaneNode(LeafPayload leaf)
        : payload(std::move(leaf)) {}
    PaneNode(SplitPayload split)
        : payload(std::move(split)) {}
    // Out of line on purpose: when g++ 12 inlines the variant's destructor into a caller that
    // builds trees from braced lists, it reports uninitialised reads that can't happen.
    PaneNode(); // a leaf with the nil id
    PaneNode(const PaneNode&);
    PaneNode(PaneNode&&) noexcept;
    PaneNode& operator=(const PaneNode&);
    PaneNode& operator=(PaneNode&&) noexcept;
    ~PaneNode();

    const UUID& id() const;
    bool isLeaf() const { return std::holds_alternative<LeafPayload>(payload); }
    const LeafPayload* asLeaf() const { return std::get_if<LeafPayload>(&payload); }
    const SplitPayload* asSplit() const { return std::get_if<SplitPayload>(&payload); }

    // A leaf with a new id and no session.
    static PaneNode emptyLeaf();

    // Leaf ids depth first, left to right; the order of `sessionIDs` and of restore slots.
    std::vector<UUID> leafIDs() const;
    // The session ids of the occupied leaves, in leaf order.
    std::vector<UUID> sessionIDs() const;
    std::optional<UUID> session(UUID inLeaf) const;
    // The first leaf holding the session.
    std::optional<UUID> leaf(UUID forSession) const;
    std::optional<UUID> firstEmptyLeaf() const;
    bool containsLeaf(UUID leafID) const;
    bool containsID(UUID id) const; // any node, leaf or split
    std::size_t depth() const;      // a lone leaf has depth 1

    // Every fraction list as layout reads it: the stored one when it has one entry per child,
    // otherwise equal shares.
    static std::vector<double> effectiveFractions(const SplitPayload& split);

    // The leaf takes `session` (none empties it). A session lives in one leaf only, so any other
    // leaf that held it is emptied. An unknown leaf leaves the tree unchanged.
    PaneNode assigning(std::optional<UUID> session, UUID toLeaf) const;
    // Every leaf holding the session stays, empty.
    PaneNode removingSession(UUID session) const;
    // A new empty leaf beside `leaf`. Inside a split of the same axis, the leaf's share is halved
    // between it and the new leaf, so the siblings don't move; elsewhere the leaf becomes a new
    // split of the two, halves each. The old leaf keeps its id and session.
    PaneNode splitting(UUID leaf, PaneAxis axis) const;
    PaneNode splitting(UUID leaf, PaneAxis axis, UUID newLeafID) const;
    // Like splitting, with a new leaf holding `session`, before or after `nextTo`. The session
    // leaves any other leaf that held it. Unchanged when `nextTo` is unknown or `newLeafID` is
    // already in the tree.
    PaneNode inserting(UUID session, UUID newLeafID, UUID nextTo, PaneAxis axis, bool before) const;
    // None when the leaf was the whole tree. A split left with one child is replaced by that
    // child; the fractions of the survivors are scaled back to a sum of 1.
    std::optional<PaneNode> removingLeaf(UUID leaf) const;
    // Taken only when there is one fraction per child, each finite and not negative, with a
    // positive sum; a list that doesn't add up to 1 (a divider dragged in points) is scaled.
    PaneNode settingFractions(UUID splitID, const std::vector<double>& fractions) const;
    // The shape alone: fresh ids everywhere, no sessions, axes and fractions kept. This is what
    // the state file and templates hold.
    PaneNode cleaned() const;

    // {"leaf": {"id", "sessionID"?}} or {"split": {"id", "axis", "children", "fractions"}}.
    nlohmann::json toJSON() const;
    // None on any damage: wrong types, unknown axis, bad UUID text, a split with fewer than two
    // children, negative fractions, a repeated id or session, nesting past maxDepth. Absent
    // fractions, or a list of the wrong length, become equal shares.
    static std::optional<PaneNode> fromJSON(const nlohmann::json& json);

    bool operator==(const PaneNode&) const = default;
};

} // namespace OstrelCore
