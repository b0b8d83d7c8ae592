#include "xml.hpp"

#include <libxml/parser.h>

#include <stdexcept>

namespace tktest {

std::string element(const std::string& name, const std::string& text) {
    return "<" + name + ">" + text + "</" + name + ">";
}

Tree::Tree(const std::string& xml) {
    doc_ = xmlReadMemory(xml.data(), static_cast<int>(xml.size()), nullptr, nullptr, XML_PARSE_NOBLANKS);
    if (doc_ == nullptr) throw std::runtime_error("malformed test XML: " + xml);
}

Tree::~Tree() { xmlFreeDoc(doc_); }

xmlNodePtr Tree::at(const std::string& path) const {
    xmlNodePtr node = root();
    for (size_t start = 0; node != nullptr && start < path.size();) {
        size_t end = std::min(path.find('/', start), path.size());
        std::string step = path.substr(start, end - start);
        int index = 1;
        if (size_t bracket = step.find('['); bracket != std::string::npos) {
            index = std::stoi(step.substr(bracket + 1));
            step.resize(bracket);
        }
        xmlNodePtr found = nullptr;
        for (xmlNodePtr c = node->children; c != nullptr && found == nullptr; c = c->next)
            if (c->type == XML_ELEMENT_NODE && step == reinterpret_cast<const char*>(c->name) && --index == 0)
                found = c;
        node = found;
        start = end + 1;
    }
    if (node == nullptr) throw std::runtime_error("no node at " + path);
    return node;
}

}  // namespace tktest
