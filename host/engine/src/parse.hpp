// XML text read the way a NETCONF server reads it with libyang.
#pragma once

#include <string_view>

#include "model.hpp"

namespace tavrik::engine {

// The text is wrapped into the envelope it has on the wire (an edit-config
// RPC, or the reply of a get-config when the text is a <data> element) on
// its own first line, so that libyang's line numbers are the text's, and
// parsed with lyd_parse_op: the content of <config> (or <data>) comes out
// as the anyxml parameter's tree.
ParsedXml parse_xml(const Model& model, std::string_view xml);

}  // namespace tavrik::engine
