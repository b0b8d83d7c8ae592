// A seeded random generator of configurations over the data model: it walks
// the model's schema (libyang), so every configuration node of the model can
// appear, and takes plausible values for each leaf from a table (now and then
// an invalid one, which someone on the way must refuse).
//
// Each next() changes the current configuration in one to three places
// (add, change or remove a node) and returns the whole result, for an edit
// with the default operation "replace". Changes whose lines the module
// cannot carry to the appliance are not generated (docs/appliance.md,
// "What the module does not carry").
#pragma once

#include <cstdint>
#include <random>
#include <set>
#include <string>
#include <string_view>
#include <vector>

struct ly_ctx;
struct lysc_node;

namespace appliance_test {

struct Node {
    const lysc_node* schema = nullptr;
    std::string value;  // leaves and leaf-list entries
    std::vector<Node> children;
};
using Chain = std::vector<const Node*>;  // ancestors, outermost first

class Generator {
public:
    Generator(const ly_ctx* ctx, std::uint64_t seed, double invalid_rate = 0.04);

    // The next configuration as XML text (<antivirus> in the model's namespace).
    std::string next();
    // The last configuration was applied / refused (back to the one before).
    void accept() { previous_ = root_; }
    void reject() { root_ = previous_; }

    // Schema paths of every leaf and leaf-list the generator has made.
    const std::set<std::string>& coverage() const { return coverage_; }
    // Schema paths of every configuration leaf and leaf-list of the model.
    static std::set<std::string> model_leaves(const ly_ctx* ctx);

private:
    bool mutate(double r);
    Node make(const lysc_node* schema, Chain chain, int depth);
    std::string value(const lysc_node* leaf, const Chain& chain);
    // A timeout without the action it belongs to, but for a fraction `keep`.
    bool unwanted_timeout(const lysc_node* s, const Node& parent, double keep);
    bool chance(double p) { return std::bernoulli_distribution(p)(rng_); }
    std::size_t pick(std::size_t n) { return std::uniform_int_distribution<std::size_t>(0, n - 1)(rng_); }
    // One of the options between '|'; "#low-high" in it stands for a number.
    std::string one_of(std::string_view options);

    std::mt19937_64 rng_;
    double invalid_rate_;
    Node root_, previous_;
    std::set<std::string> coverage_;
};

}  // namespace appliance_test
