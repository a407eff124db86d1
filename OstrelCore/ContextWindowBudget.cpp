// Context window arithmetic.
#include "OstrelCore/ContextWindowBudget.h"

namespace OstrelCore::ContextWindowBudget {

std::int64_t usableLimit(std::int64_t reportedWindow, Provider provider) {
    if (reportedWindow < 1) return 0;
    switch (provider) {
    case Provider::codex: return reportedWindow;
    case Provider::claude:
        // reportedWindow * 4 / 5 without overflow for any positive 64-bit value.
        return reportedWindow / 5 * 4 + reportedWindow % 5 * 4 / 5;
    }
    return reportedWindow;
}

std::int64_t windowForModel(std::optional<std::string_view> model, const ModelWindows& catalogue) {
    if (!model) return standardWindow;
    if (auto it = catalogue.find(std::string(*model)); it != catalogue.end() && it->second >= 1)
        return it->second;
    if (model->find("[1m]") != std::string_view::npos) return extendedWindow;
    if (model->find("codex") != std::string_view::npos || model->find("gpt") != std::string_view::npos)
        return openAIWindow;
    return standardWindow;
}

} // namespace OstrelCore::ContextWindowBudget
