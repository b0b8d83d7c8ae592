// XML trees to hand to callbacks, as the engine hands over nodes of a
// configuration difference.
#pragma once

#include <libxml/tree.h>

#include <string>

namespace tktest {

// "<name>text</name>"
std::string element(const std::string& name, const std::string& text);

// A parsed document; nodes are found by a path of element names below the
// root element ("vsys/profiles/profile/description"); "name[2]" is the
// second element of that name.
class Tree {
public:
    explicit Tree(const std::string& xml);
    ~Tree();
    Tree(const Tree&) = delete;
    Tree& operator=(const Tree&) = delete;

    xmlDocPtr doc() const { return doc_; }
    xmlNodePtr root() const { return xmlDocGetRootElement(doc_); }
    xmlNodePtr at(const std::string& path) const;

private:
    xmlDocPtr doc_;
};

}  // namespace tktest
