#include "PluralRule.hpp"

#include <array>

namespace kel {

namespace {

struct BinaryOperator {
    std::string_view token;
    int precedence;  // higher binds tighter; all binary operators associate to the left
};

}  // namespace

// Precedence climbing over a table of binary operators; "?:", "!" and parentheses are parsed
// around it.
class MessageCatalog::PluralRule::Parser {
  public:
    Parser(std::string_view text, std::vector<Node>& nodes) : text_(text), nodes_(nodes) {}

    // True when the whole text is one well-formed expression within the limits; its nodes are
    // then in nodes_, the root last.
    bool parseAll() {
        conditional();
        skipSpace();
        return !failed_ && position_ == text_.size();
    }

  private:
    struct Entry {
        BinaryOperator syntax;
        Op op;
    };
    // A two-character token comes before the one-character token it starts with.
    static constexpr std::array<Entry, 13> binaryOperators{{
        {{"||", 1}, Op::logicalOr},
        {{"&&", 2}, Op::logicalAnd},
        {{"==", 3}, Op::equal},
        {{"!=", 3}, Op::notEqual},
        {{"<=", 4}, Op::lessEqual},
        {{">=", 4}, Op::greaterEqual},
        {{"<", 4}, Op::less},
        {{">", 4}, Op::greater},
        {{"+", 5}, Op::add},
        {{"-", 5}, Op::subtract},
        {{"*", 6}, Op::multiply},
        {{"/", 6}, Op::divide},
        {{"%", 6}, Op::remainder},
    }};

    void skipSpace() {
        while (position_ < text_.size() && (text_[position_] == ' ' || text_[position_] == '\t' ||
                                            text_[position_] == '\n' || text_[position_] == '\r')) {
            ++position_;
        }
    }

    bool accept(std::string_view token) {
        skipSpace();
        if (text_.substr(position_, token.size()) == token) {
            position_ += token.size();
            return true;
        }
        return false;
    }

    // The binary operator at the current position, not consumed; null when there is none.
    const Entry* peekBinary() {
        skipSpace();
        std::string_view rest = text_.substr(position_);
        for (const Entry& entry : binaryOperators) {
            if (rest.starts_with(entry.syntax.token)) {
                return &entry;
            }
        }
        return nullptr;
    }

    void fail() { failed_ = true; }

    // Appends a node whose operands are the last `arity` results; leaves the new node as a result.
    void make(Op op, std::size_t arity, unsigned long value = 0) {
        if (failed_ || results_.size() < arity || nodes_.size() >= maximumNodes) {
            fail();
            return;
        }
        Node node{op};
        node.value = value;
        for (std::size_t k = 0; k < arity; ++k) {
            node.operands[k] = results_[results_.size() - arity + k];
        }
        results_.resize(results_.size() - arity);
        results_.push_back(static_cast<std::uint32_t>(nodes_.size()));
        nodes_.push_back(node);
    }

    // Nesting (parentheses, "!", the branches of "?:") is the only recursion; it is bounded.
    bool enter() {
        if (++depth_ > maximumDepth) {
            fail();
        }
        return !failed_;
    }
    void leave() { --depth_; }

    void conditional() {
        if (!enter()) {
            return;
        }
        binary(1);
        if (!failed_ && accept("?")) {
            conditional();
            if (!accept(":")) {
                fail();
            }
            conditional();
            make(Op::conditional, 3);
        }
        leave();
    }

    // Parses operands joined by operators of at least `minimumPrecedence`. The recursion for a
    // right operand raises the minimum, so it is at most as deep as there are precedence levels.
    void binary(int minimumPrecedence) {
        unary();
        while (!failed_) {
            const Entry* entry = peekBinary();
            if (entry == nullptr || entry->syntax.precedence < minimumPrecedence) {
                return;
            }
            position_ += entry->syntax.token.size();
            binary(entry->syntax.precedence + 1);
            make(entry->op, 2);
        }
    }

    void unary() {
        skipSpace();
        // "!" not followed by "=", which would be the binary "!=" with its left operand missing.
        if (text_.substr(position_, 1) == "!" && text_.substr(position_, 2) != "!=") {
            ++position_;
            if (enter()) {
                unary();
                make(Op::logicalNot, 1);
                leave();
            }
            return;
        }
        primary();
    }

    void primary() {
        skipSpace();
        if (position_ >= text_.size()) {
            return fail();
        }
        char c = text_[position_];
        if (c == 'n') {
            ++position_;
            return make(Op::variable, 0);
        }
        if (c >= '0' && c <= '9') {
            unsigned long value = 0;
            while (position_ < text_.size() && text_[position_] >= '0' && text_[position_] <= '9') {
                value = value * 10 + static_cast<unsigned long>(text_[position_] - '0');
                ++position_;
            }
            return make(Op::number, 0, value);
        }
        if (accept("(")) {
            conditional();
            if (!accept(")")) {
                fail();
            }
            return;
        }
        fail();
    }

    std::string_view text_;
    std::vector<Node>& nodes_;
    std::vector<std::uint32_t> results_;  // the nodes of the operands parsed and not yet used
    std::size_t position_ = 0;
    int depth_ = 0;
    bool failed_ = false;
};

std::shared_ptr<const MessageCatalog::PluralRule> MessageCatalog::PluralRule::parse(
    std::string_view pluralForms) {
    // "nplurals" contains "plural", so the expression is looked for after the count.
    std::size_t countAt = pluralForms.find("nplurals=");
    if (countAt == std::string_view::npos) {
        return nullptr;
    }
    std::size_t digitsAt = countAt + 9;
    unsigned long count = 0;
    std::size_t position = digitsAt;
    while (position < pluralForms.size() && pluralForms[position] >= '0' &&
           pluralForms[position] <= '9' && count < 1000) {
        count = count * 10 + static_cast<unsigned long>(pluralForms[position] - '0');
        ++position;
    }
    if (position == digitsAt || count == 0) {
        return nullptr;
    }
    std::size_t expressionAt = pluralForms.find("plural=", position);
    if (expressionAt == std::string_view::npos) {
        return nullptr;
    }
    std::string_view expression = pluralForms.substr(expressionAt + 7);
    expression = expression.substr(0, expression.find(';'));

    auto rule = std::make_shared<PluralRule>();
    rule->count_ = count;
    if (!Parser(expression, rule->nodes_).parseAll() || rule->nodes_.empty()) {
        return nullptr;
    }
    return rule;
}

std::shared_ptr<const MessageCatalog::PluralRule> MessageCatalog::PluralRule::english() {
    static const std::shared_ptr<const PluralRule> rule = parse("nplurals=2; plural=(n != 1);");
    return rule;
}

unsigned long MessageCatalog::PluralRule::evaluate(unsigned long n) const {
    // Every operand precedes its node, so one pass computes each node from finished values.
    // Both branches of ?: and both sides of && and || are computed: the language has no side
    // effects, so the result is the same as with short-circuiting.
    std::array<unsigned long, maximumNodes> values;
    for (std::size_t i = 0; i < nodes_.size(); ++i) {
        const Node& node = nodes_[i];
        auto operand = [&](int which) { return values[node.operands[which]]; };
        unsigned long& result = values[i];
        switch (node.op) {
            case Op::number:
                result = node.value;
                break;
            case Op::variable:
                result = n;
                break;
            case Op::logicalNot:
                result = operand(0) == 0 ? 1 : 0;
                break;
            case Op::multiply:
                result = operand(0) * operand(1);
                break;
            case Op::divide:
                result = operand(1) == 0 ? 0 : operand(0) / operand(1);
                break;
            case Op::remainder:
                result = operand(1) == 0 ? 0 : operand(0) % operand(1);
                break;
            case Op::add:
                result = operand(0) + operand(1);
                break;
            case Op::subtract:
                result = operand(0) - operand(1);
                break;
            case Op::less:
                result = operand(0) < operand(1) ? 1 : 0;
                break;
            case Op::greater:
                result = operand(0) > operand(1) ? 1 : 0;
                break;
            case Op::lessEqual:
                result = operand(0) <= operand(1) ? 1 : 0;
                break;
            case Op::greaterEqual:
                result = operand(0) >= operand(1) ? 1 : 0;
                break;
            case Op::equal:
                result = operand(0) == operand(1) ? 1 : 0;
                break;
            case Op::notEqual:
                result = operand(0) != operand(1) ? 1 : 0;
                break;
            case Op::logicalAnd:
                result = operand(0) != 0 && operand(1) != 0 ? 1 : 0;
                break;
            case Op::logicalOr:
                result = operand(0) != 0 || operand(1) != 0 ? 1 : 0;
                break;
            case Op::conditional:
                result = operand(0) != 0 ? operand(1) : operand(2);
                break;
        }
    }
    unsigned long index = values[nodes_.size() - 1];
    return index < count_ ? index : 0;
}

}  // namespace kel
