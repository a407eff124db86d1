// Where sessions go in a project's pane tree: placing a new or selected session, making room by
// splitting, moving a session by drag and drop, applying a template. Pure decisions; the store
// keeps the trees, the focused pane of each project and the pending pane, and saves.
#pragma once

#include "OstrelCore/PaneLayout.h"
#include "OstrelCore/PaneNode.h"

#include <optional>
#include <span>

namespace OstrelCore {

// A tree after a placement, and the leaf that should have the focus in it.
//
// What stays with the store around each call: it reads and clears its pending pane before
// placeSession and passes it only when it names this project; it creates a project's tree on
// first need (a single empty leaf); afterwards it writes `tree` into the project's layout, moves
// the project's focused pane to `leaf`, and saves. drop() giving none means no change, no save.
// applyTemplate() wants the project's alive sessions in creation order.
struct PanePlacement {
    PaneNode tree;
    UUID leaf;

    // The remembered focus when it is still a leaf of the tree, else the first leaf.
    static std::optional<UUID> focusedLeaf(const PaneNode& tree, std::optional<UUID> remembered);

    // Makes room for one more session. Leaves are tried largest area first (laid out in
    // `paneArea`); the first that stays at least the minimum width when halved side by side is
    // split horizontally, else the first that stays at least the minimum height when halved is
    // split vertically. The result's leaf is the new empty one. When no leaf can be halved, the
    // tree is unchanged and the leaf is the focused one, whose session will be replaced.
    static PanePlacement autoSplit(const PaneNode& tree, std::optional<UUID> focused, PaneSize paneArea);

    // Puts a session in the tree. A session that already has a leaf keeps it (the result only
    // moves the focus there). Otherwise it goes to `pendingLeaf` when that is still in the tree,
    // else to the first empty leaf, else, with `allowSplit`, to a leaf made by autoSplit, and
    // without it to the focused leaf. `pendingLeaf` is the empty pane the launcher was opened
    // from, already matched to this project by the caller.
    static PanePlacement placeSession(const PaneNode& tree, UUID session, std::optional<UUID> pendingLeaf,
                                      std::optional<UUID> focused, bool allowSplit, PaneSize paneArea);

    // A session dragged onto the pane `target`. In the centre it swaps places with the session
    // there (or just moves in when it came from outside the tree or the target is empty). On an
    // edge it gets a new pane on that side of the target, and its old pane closes. None when
    // nothing changes: an unknown target, a drop onto its own pane.
    static std::optional<PanePlacement> drop(const PaneNode& tree, UUID session, UUID target,
                                             PaneDropZone zone);
    static std::optional<PanePlacement> drop(const PaneNode& tree, UUID session, UUID target,
                                             PaneDropZone zone, UUID newLeafID);

    // A fresh copy of the template's shape with the sessions placed in leaf order, as many as
    // there are leaves; sessions beyond that get no pane. The focus goes to the first leaf.
    static PanePlacement applyTemplate(const PaneNode& templateNode, std::span<const UUID> sessions);

    // Closes a pane; closing the last one leaves a single empty pane, never an empty tree.
    static PaneNode closePane(const PaneNode& tree, UUID leaf);

    // Exchanges the sessions of two panes; either may be empty. Unknown leaves change nothing.
    static PaneNode swapPanes(const PaneNode& tree, UUID first, UUID second);

    bool operator==(const PanePlacement&) const = default;
};

} // namespace OstrelCore
