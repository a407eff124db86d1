// Where a session finds the subscription windows of its provider when it dates an auto-resume. The
// store owns one for all sessions; until usage is fetched from the providers it knows of none.
#pragma once

#include "OstrelCore/QuotaWindow.h"

#include <vector>

namespace Ostrel {

class QuotaWindowsProvider {
public:
    virtual ~QuotaWindowsProvider() = default;
    // The windows as last fetched, Claude's first; main thread only.
    virtual std::vector<OstrelCore::QuotaWindow> quotaWindows() const = 0;
};

// No windows at all: a resume is dated by the agent's notice alone.
class NoQuotaWindows final : public QuotaWindowsProvider {
public:
    std::vector<OstrelCore::QuotaWindow> quotaWindows() const override { return {}; }
};

} // namespace Ostrel
