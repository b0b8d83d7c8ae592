// Edits given as XML text: read the way the server reads <config> (with
// libyang, Engine::parse), then applied. A text that cannot be read comes
// back as the refused edit.
#pragma once

#include <string_view>

#include "tavrik/engine.hpp"

namespace tktest {

inline tavrik::engine::EditResult edit_text(tavrik::engine::Engine& engine, std::string_view xml,
                                            const tavrik::engine::EditOptions& options = {}) {
    tavrik::engine::ParsedXml parsed = engine.parse(xml);
    if (parsed.error) return {false, {}, std::move(parsed.error), {}, {}};
    return engine.edit(parsed.tree.get(), options);
}

}  // namespace tktest
