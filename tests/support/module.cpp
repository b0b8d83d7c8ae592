#include "module.hpp"

namespace tktest {

const tavrik::engine::Module& module() {
    static const auto* const loaded = new tavrik::engine::Module(TAVRIK_MODULE_PATH);  // never unloaded
    return *loaded;
}

}  // namespace tktest
