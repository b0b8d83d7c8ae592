// The server's vsys feature, which a platform may stand in for.
//
// On the firewall the virtual systems belong to a feature of the server
// beside the antivirus module: removing a vsys there takes all of the vsys's
// configuration with it, and the module sends nothing for the nodes of a
// removed vsys entry (their rows have priority 0 or screen the removed vsys).
// A host that has no such feature lets its platform stand in for it: the
// platform implements VsysFeature beside tavrik::runtime::Platform, and the
// host hands it to the engine (Engine::set_vsys_feature). Without one,
// nothing is told.
//
// Header only: a platform needs no more of the engine than this.
#pragma once

#include <string>
#include <vector>

namespace tavrik::engine {

class VsysFeature {
public:
    virtual ~VsysFeature() = default;

    // An edit removed the vsys entries `names` (in document order) and
    // everything else in it was carried out: drop all configuration of each
    // of them. Called once per edit, after the last line, never for a dry
    // run or a refused edit. All or nothing: returns 0 when done; otherwise
    // the platform's code, with nothing dropped, and the engine undoes what
    // the edit sent and refuses it.
    virtual int remove_vsys(const std::vector<std::string>& names) = 0;
};

}  // namespace tavrik::engine
