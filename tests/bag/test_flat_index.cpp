// The sort directory's flat index against a model: many entries per hash, runs that wrap around
// the end of the table, erasures that shift runs back, and growth.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <vector>

#include "bag/FlatGuidIndex.h"
#include "mc/host/RefCounted.h"

namespace {

struct Node : velacore::RefCountedObject {
    explicit Node(int id, int& destroyed) : id(id), destroyed(destroyed) {}
    ~Node() override { ++destroyed; }
    int id;
    int& destroyed;
};
using NodePtr = velacore::IntrusivePtr<Node>;

std::vector<int> Visit(const FlatGuidIndex<Node>& index, uint32_t hash) {
    std::vector<int> ids;
    index.ForEachWithHash(hash, [&](const NodePtr& n) { ids.push_back(n->id); });
    return ids;
}

// Few hash values and a small table give long runs that collide and wrap; every step compares
// every run with the model (insertion order per hash) and each erasure must free its node.
TEST(FlatGuidIndex, MatchesAModelThroughCollisionsWrapAroundAndGrowth) {
    int destroyed = 0;
    std::mt19937 rng(7);
    FlatGuidIndex<Node> index;
    std::map<uint32_t, std::vector<Node*>> model;  // hash -> nodes, oldest first
    std::vector<std::pair<Node*, uint32_t>> live;
    int created = 0;
    for (int step = 0; step < 4000; ++step) {
        const bool insert = live.empty() || rng() % 100 < (step < 2000 ? 65u : 35u);
        if (insert) {
            const uint32_t hash = rng() % 24;
            NodePtr node(new Node(created++, destroyed));
            model[hash].push_back(node.get());
            live.emplace_back(node.get(), hash);
            index.Insert(std::move(node), hash);
        } else {
            const size_t k = rng() % live.size();
            const auto [node, hash] = live[k];
            live.erase(live.begin() + static_cast<std::ptrdiff_t>(k));
            auto& run = model[hash];
            run.erase(std::find(run.begin(), run.end(), node));
            const int before = destroyed;
            ASSERT_TRUE(index.Erase(node, hash));
            ASSERT_EQ(destroyed, before + 1) << "the erased entry's reference was not dropped";
            ASSERT_FALSE(index.Erase(node, hash));
        }
        ASSERT_EQ(index.Size(), live.size());
        for (const auto& [hash, nodes] : model) {
            std::vector<int> expected;
            for (const Node* n : nodes) expected.push_back(n->id);
            ASSERT_EQ(Visit(index, hash), expected) << "hash " << hash << " at step " << step;
        }
    }
    EXPECT_EQ(destroyed + static_cast<int>(live.size()), created);
}

}  // namespace
