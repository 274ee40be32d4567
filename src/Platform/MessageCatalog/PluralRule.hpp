// The compiled "plural=" expression of a catalogue's Plural-Forms header.
//
// The expression language is the C subset gettext defines: the variable n, unsigned decimal
// numbers, parentheses, the operators ! * / % + - < > <= >= == != && || and the conditional ?:,
// with C's precedence and associativity. Arithmetic is on unsigned long; division by zero gives 0
// rather than a crash.
//
// A rule is compiled into a flat list of nodes in which every node comes after its operands, so
// evaluation is one forward pass over the list: no recursion, and a cost bounded by the node
// limit whatever the shape of the expression. Parsing recurses only into parentheses, "!" and
// the branches of "?:", which the nesting limit bounds.
//
// Thread rules: immutable once parsed; any thread may evaluate a rule concurrently.
// Ownership: shared by the catalogues that use it (the English rule lives for the process).
#pragma once

#include "kel/Platform/MessageCatalog.hpp"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

namespace kel {

class MessageCatalog::PluralRule {
  public:
    // Real rules have a few dozen nodes and a nesting of a few levels; anything past these
    // limits is hostile and falls back to the English rule.
    static constexpr std::size_t maximumNodes = 256;
    static constexpr int maximumDepth = 64;

    // Parses "nplurals=<count>; plural=<expression>;". Nothing when the text does not parse or
    // exceeds the limits above.
    static std::shared_ptr<const PluralRule> parse(std::string_view pluralForms);
    // nplurals=2; plural=(n != 1);
    static std::shared_ptr<const PluralRule> english();

    // The form index for n; an index the expression computes outside [0, count) becomes 0.
    unsigned long evaluate(unsigned long n) const;

  private:
    enum class Op : std::uint8_t {
        number,
        variable,
        logicalNot,
        multiply,
        divide,
        remainder,
        add,
        subtract,
        less,
        greater,
        lessEqual,
        greaterEqual,
        equal,
        notEqual,
        logicalAnd,
        logicalOr,
        conditional
    };
    struct Node {
        Op op;
        std::uint32_t operands[3] = {0, 0, 0};  // indices of earlier nodes
        unsigned long value = 0;                // the number of a number node
    };
    class Parser;

    std::vector<Node> nodes_;  // operands before the nodes that use them; the root is last
    unsigned long count_ = 2;
};

}  // namespace kel
