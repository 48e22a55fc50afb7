// A2L text into blocks: the tree and the visitor see the same, and number words are the numbers that the C
// library reads.
#include <cstdlib>
#include <string>
#include <vector>

#include "a2l/tokenizer.h"
#include "fuzz_input.h"

namespace lm::fuzz {
namespace {

using a2l::Block;

void requireEqual(const Block& a, const Block& b) {
    require(a.keyword == b.keyword && a.line == b.line && a.position == b.position, "equal blocks");
    require(a.tokens().size() == b.tokens().size(), "equally many tokens");
    for (std::size_t i = 0; i < a.tokens().size(); ++i) {
        const auto& left = a.tokens()[i];
        const auto& right = b.tokens()[i];
        require(left.text.data() == right.text.data() && left.text.size() == right.text.size(),
                "equal texts");
        require(left.kind == right.kind && left.line == right.line && same(left.value, right.value),
                "equal tokens");
    }
    require(a.children().size() == b.children().size(), "equally many children");
    for (std::size_t i = 0; i < a.children().size(); ++i)
        requireEqual(a.children()[i], b.children()[i]);
}

// Collects the children of the root and compares each with the tree's.
class Comparer : public a2l::BlockVisitor {
  public:
    explicit Comparer(const Result<Block>& tree) : tree_(tree) {}

    Step opened(std::string_view, std::size_t depth) override {
        require(depth == 0, "only children of the root are asked about");
        return Step::collect;
    }
    void collected(const Block& block) override {
        const std::size_t index = collected_++;
        if (!tree_) return;
        require(index < tree_.value().children().size(), "no more blocks than the tree has");
        requireEqual(tree_.value().children()[index], block);
    }
    void closed(const Block& root, std::size_t) override {
        require(tree_.ok() && collected_ == tree_.value().children().size(), "all blocks came");
        require(root.tokens().size() == tree_.value().tokens().size(), "the root has its tokens");
    }
    void included(std::string_view, std::uint32_t) override {}
    void passed(std::size_t, std::size_t) override {}

  private:
    const Result<Block>& tree_;
    std::size_t collected_ = 0;
};

void checkNumbers(const Block& block) {
    for (const auto& token : block.tokens()) {
        if (token.kind != a2l::TokenKind::number) continue;
        const std::string text(token.text);
        require(same(std::strtod(text.c_str(), nullptr), token.value), "number " + text);
    }
    for (const Block& child : block.children())
        checkNumbers(child);
}

}  // namespace
}  // namespace lm::fuzz

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace lm;
    const std::string_view text = fuzz::Input(data, size).rest();
    const Result<a2l::Block> tree = a2l::parse(text);
    fuzz::Comparer comparer(tree);
    const Result<void> scanned = a2l::scan(text, comparer);
    fuzz::require(tree.ok() == scanned.ok(), "both ways succeed or fail");
    if (!tree) fuzz::require(tree.error().text() == scanned.error().text(), "both ways fail alike");
    if (tree) fuzz::checkNumbers(tree.value());
    return 0;
}
