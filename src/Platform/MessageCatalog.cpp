#include "kel/Platform/MessageCatalog.hpp"

#include <dlfcn.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <mutex>
#include <system_error>

// The installed locale directory relative to the installed library's directory, set by the
// build from the install layout.
#ifndef KEL_INSTALLED_LOCALE_DIR
#error "KEL_INSTALLED_LOCALE_DIR must name the locale directory relative to the library"
#endif

namespace kel {

namespace fs = std::filesystem;

// A compiled "plural=" expression of a catalogue's Plural-Forms header. The expression language
// is the C subset gettext defines: the variable n, unsigned decimal numbers, parentheses, the
// operators ! * / % + - < > <= >= == != && || and the conditional ?:, with C's precedence.
// Arithmetic is on unsigned long; division by zero gives 0 rather than a crash.
class MessageCatalog::PluralRule {
  public:
    // Parses "nplurals=<count>; plural=<expression>;". Nothing when the text does not parse.
    static std::shared_ptr<const PluralRule> parse(std::string_view pluralForms);
    // nplurals=2; plural=(n != 1);
    static std::shared_ptr<const PluralRule> english();

    // The form index for n; an index the expression computes outside [0, count) becomes 0.
    unsigned long evaluate(unsigned long n) const {
        unsigned long index = evaluate(root_, n);
        return index < count_ ? index : 0;
    }

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
        unsigned long value = 0;  // the number of a number node
        int operands[3] = {-1, -1, -1};
    };
    class Parser;

    unsigned long evaluate(int index, unsigned long n) const;

    std::vector<Node> nodes_;
    int root_ = -1;
    unsigned long count_ = 2;
};

// Recursive descent over the expression text, one function per precedence level.
class MessageCatalog::PluralRule::Parser {
  public:
    Parser(std::string_view text, std::vector<Node>& nodes) : text_(text), nodes_(nodes) {}

    // The root node of the whole text, or -1 when it is not one well-formed expression.
    int parseAll() {
        int root = conditional();
        skipSpace();
        return failed_ || position_ != text_.size() ? -1 : root;
    }

  private:
    // Deep enough for any real rule, shallow enough that a hostile file cannot exhaust the stack.
    static constexpr int maximumDepth = 64;
    // Real rules have a few dozen nodes; this bounds the evaluator's recursion.
    static constexpr std::size_t maximumNodes = 256;

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

    // Accepts a one-character operator that is not the start of a two-character one.
    bool acceptSingle(char c, char notFollowedBy) {
        skipSpace();
        if (position_ < text_.size() && text_[position_] == c &&
            (position_ + 1 >= text_.size() || text_[position_ + 1] != notFollowedBy)) {
            ++position_;
            return true;
        }
        return false;
    }

    int make(Op op, int a = -1, int b = -1, int c = -1, unsigned long value = 0) {
        if (a < 0 && (op != Op::number && op != Op::variable)) {
            failed_ = true;
        }
        // The evaluator recurses along the tree; a long chain such as n+n+...+n is as deep as
        // it is long, so the size of the tree is bounded as well as its nesting.
        if (nodes_.size() >= maximumNodes) {
            failed_ = true;
        }
        if (failed_) {
            return -1;
        }
        nodes_.push_back(Node{op, value, {a, b, c}});
        return static_cast<int>(nodes_.size() - 1);
    }

    int fail() {
        failed_ = true;
        return -1;
    }

    int conditional() {
        if (++depth_ > maximumDepth) {
            return fail();
        }
        int condition = logicalOr();
        if (accept("?")) {
            int whenTrue = conditional();
            if (!accept(":")) {
                return fail();
            }
            int whenFalse = conditional();
            condition = make(Op::conditional, condition, whenTrue, whenFalse);
            if (whenTrue < 0 || whenFalse < 0) {
                return fail();
            }
        }
        --depth_;
        return condition;
    }

    int logicalOr() {
        int left = logicalAnd();
        while (accept("||")) {
            int right = logicalAnd();
            left = right < 0 ? fail() : make(Op::logicalOr, left, right);
        }
        return left;
    }

    int logicalAnd() {
        int left = equality();
        while (accept("&&")) {
            int right = equality();
            left = right < 0 ? fail() : make(Op::logicalAnd, left, right);
        }
        return left;
    }

    int equality() {
        int left = relational();
        for (;;) {
            Op op;
            if (accept("==")) {
                op = Op::equal;
            } else if (accept("!=")) {
                op = Op::notEqual;
            } else {
                return left;
            }
            int right = relational();
            left = right < 0 ? fail() : make(op, left, right);
        }
    }

    int relational() {
        int left = additive();
        for (;;) {
            Op op;
            if (accept("<=")) {
                op = Op::lessEqual;
            } else if (accept(">=")) {
                op = Op::greaterEqual;
            } else if (accept("<")) {
                op = Op::less;
            } else if (accept(">")) {
                op = Op::greater;
            } else {
                return left;
            }
            int right = additive();
            left = right < 0 ? fail() : make(op, left, right);
        }
    }

    int additive() {
        int left = multiplicative();
        for (;;) {
            Op op;
            if (accept("+")) {
                op = Op::add;
            } else if (accept("-")) {
                op = Op::subtract;
            } else {
                return left;
            }
            int right = multiplicative();
            left = right < 0 ? fail() : make(op, left, right);
        }
    }

    int multiplicative() {
        int left = unary();
        for (;;) {
            Op op;
            if (accept("*")) {
                op = Op::multiply;
            } else if (accept("/")) {
                op = Op::divide;
            } else if (accept("%")) {
                op = Op::remainder;
            } else {
                return left;
            }
            int right = unary();
            left = right < 0 ? fail() : make(op, left, right);
        }
    }

    int unary() {
        if (acceptSingle('!', '=')) {
            if (++depth_ > maximumDepth) {
                return fail();
            }
            int operand = unary();
            --depth_;
            return operand < 0 ? fail() : make(Op::logicalNot, operand);
        }
        return primary();
    }

    int primary() {
        skipSpace();
        if (position_ >= text_.size()) {
            return fail();
        }
        char c = text_[position_];
        if (c == 'n') {
            ++position_;
            return make(Op::variable);
        }
        if (c >= '0' && c <= '9') {
            unsigned long value = 0;
            while (position_ < text_.size() && text_[position_] >= '0' && text_[position_] <= '9') {
                value = value * 10 + static_cast<unsigned long>(text_[position_] - '0');
                ++position_;
            }
            return make(Op::number, -1, -1, -1, value);
        }
        if (accept("(")) {
            int inner = conditional();
            if (inner < 0 || !accept(")")) {
                return fail();
            }
            return inner;
        }
        return fail();
    }

    std::string_view text_;
    std::vector<Node>& nodes_;
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
    rule->root_ = Parser(expression, rule->nodes_).parseAll();
    if (rule->root_ < 0) {
        return nullptr;
    }
    return rule;
}

std::shared_ptr<const MessageCatalog::PluralRule> MessageCatalog::PluralRule::english() {
    static const std::shared_ptr<const PluralRule> rule = parse("nplurals=2; plural=(n != 1);");
    return rule;
}

unsigned long MessageCatalog::PluralRule::evaluate(int index, unsigned long n) const {
    const Node& node = nodes_[static_cast<std::size_t>(index)];
    auto operand = [&](int which) { return evaluate(node.operands[which], n); };
    switch (node.op) {
        case Op::number:
            return node.value;
        case Op::variable:
            return n;
        case Op::logicalNot:
            return operand(0) == 0 ? 1 : 0;
        case Op::multiply:
            return operand(0) * operand(1);
        case Op::divide: {
            unsigned long divisor = operand(1);
            return divisor == 0 ? 0 : operand(0) / divisor;
        }
        case Op::remainder: {
            unsigned long divisor = operand(1);
            return divisor == 0 ? 0 : operand(0) % divisor;
        }
        case Op::add:
            return operand(0) + operand(1);
        case Op::subtract:
            return operand(0) - operand(1);
        case Op::less:
            return operand(0) < operand(1) ? 1 : 0;
        case Op::greater:
            return operand(0) > operand(1) ? 1 : 0;
        case Op::lessEqual:
            return operand(0) <= operand(1) ? 1 : 0;
        case Op::greaterEqual:
            return operand(0) >= operand(1) ? 1 : 0;
        case Op::equal:
            return operand(0) == operand(1) ? 1 : 0;
        case Op::notEqual:
            return operand(0) != operand(1) ? 1 : 0;
        case Op::logicalAnd:
            return operand(0) != 0 && operand(1) != 0 ? 1 : 0;
        case Op::logicalOr:
            return operand(0) != 0 || operand(1) != 0 ? 1 : 0;
        case Op::conditional:
            return operand(0) != 0 ? operand(1) : operand(2);
    }
    return 0;
}

namespace {

// Catalogues are small; anything larger than this is not one of ours.
constexpr std::uintmax_t maximumCatalogueSize = 16 * 1024 * 1024;
constexpr std::uint32_t moMagic = 0x950412de;
constexpr std::uint32_t moMagicSwapped = 0xde120495;

class MoReader {
  public:
    explicit MoReader(std::string_view bytes) : bytes_(bytes) {}

    bool readHeader() {
        if (bytes_.size() < 20) {
            return false;
        }
        std::uint32_t magic = rawWord(0);
        if (magic == moMagicSwapped) {
            swapped_ = true;
        } else if (magic != moMagic) {
            return false;
        }
        // Major revisions 0 and 1 share the table layout read here.
        if ((word(4) >> 16) > 1) {
            return false;
        }
        count_ = word(8);
        originals_ = word(12);
        translations_ = word(16);
        std::uint64_t tableBytes = std::uint64_t{count_} * 8;
        return originals_ + tableBytes <= bytes_.size() &&
               translations_ + tableBytes <= bytes_.size();
    }

    std::uint32_t count() const { return count_; }

    // The string of table entry i; nothing when its bounds fall outside the file.
    std::optional<std::string_view> original(std::uint32_t i) const {
        return string(originals_ + std::uint64_t{i} * 8);
    }
    std::optional<std::string_view> translated(std::uint32_t i) const {
        return string(translations_ + std::uint64_t{i} * 8);
    }

  private:
    std::uint32_t rawWord(std::uint64_t offset) const {
        auto byte = [&](std::uint64_t k) {
            return static_cast<std::uint32_t>(static_cast<unsigned char>(bytes_[offset + k]));
        };
        return byte(0) | byte(1) << 8 | byte(2) << 16 | byte(3) << 24;
    }

    std::uint32_t word(std::uint64_t offset) const {
        std::uint32_t value = rawWord(offset);
        if (swapped_) {
            value =
                (value >> 24) | ((value >> 8) & 0xff00) | ((value << 8) & 0xff0000) | (value << 24);
        }
        return value;
    }

    std::optional<std::string_view> string(std::uint64_t descriptor) const {
        std::uint64_t length = word(descriptor);
        std::uint64_t offset = word(descriptor + 4);
        if (offset + length > bytes_.size()) {
            return std::nullopt;
        }
        return bytes_.substr(offset, length);
    }

    std::string_view bytes_;
    bool swapped_ = false;
    std::uint32_t count_ = 0;
    std::uint64_t originals_ = 0;
    std::uint64_t translations_ = 0;
};

// Form `index` of a translation whose forms are separated by NUL bytes; the first form when
// there are fewer.
std::string_view nthForm(std::string_view forms, unsigned long index) {
    std::string_view rest = forms;
    for (unsigned long k = 0; k < index; ++k) {
        std::size_t end = rest.find('\0');
        if (end == std::string_view::npos) {
            return forms.substr(0, forms.find('\0'));
        }
        rest.remove_prefix(end + 1);
    }
    return rest.substr(0, rest.find('\0'));
}

// The value of one "Name: value" line of a catalogue's header entry.
std::optional<std::string_view> headerField(std::string_view header, std::string_view name) {
    std::size_t line = 0;
    while (line < header.size()) {
        std::size_t end = header.find('\n', line);
        std::string_view text =
            header.substr(line, end == std::string_view::npos ? end : end - line);
        if (text.size() > name.size() && text.substr(0, name.size()) == name &&
            text[name.size()] == ':') {
            return text.substr(name.size() + 1);
        }
        if (end == std::string_view::npos) {
            break;
        }
        line = end + 1;
    }
    return std::nullopt;
}

// "de_AT.UTF-8@euro" -> de_AT@euro, de_AT, de@euro, de. The C locale names no language.
void appendLanguageVariants(std::string_view locale, std::vector<std::string>& languages) {
    if (locale.empty() || locale == "C" || locale == "POSIX" || locale.substr(0, 2) == "C.") {
        return;
    }
    std::string_view modifier;
    if (std::size_t at = locale.find('@'); at != std::string_view::npos) {
        modifier = locale.substr(at);
        locale = locale.substr(0, at);
    }
    locale = locale.substr(0, locale.find('.'));
    std::string_view language = locale.substr(0, locale.find('_'));
    if (language.empty()) {
        return;
    }
    std::vector<std::string> variants;
    if (language.size() != locale.size()) {
        if (!modifier.empty()) {
            variants.push_back(std::string(locale) + std::string(modifier));
        }
        variants.emplace_back(locale);
    }
    if (!modifier.empty()) {
        variants.push_back(std::string(language) + std::string(modifier));
    }
    variants.emplace_back(language);
    for (std::string& variant : variants) {
        if (std::find(languages.begin(), languages.end(), variant) == languages.end()) {
            languages.push_back(std::move(variant));
        }
    }
}

// Any object of this library: dladdr on its address names the library's file.
const char libraryAnchor = 0;

}  // namespace

MessageCatalog::MessageCatalog(std::string bytes, std::shared_ptr<const PluralRule> rule, Passkey)
    : bytes_(std::move(bytes)), rule_(std::move(rule)) {}

MessageCatalog::~MessageCatalog() = default;

std::shared_ptr<const MessageCatalog> MessageCatalog::open(const fs::path& file) {
    std::error_code error;
    std::uintmax_t size = fs::file_size(file, error);
    if (error || size > maximumCatalogueSize) {
        return nullptr;
    }
    std::ifstream stream(file, std::ios::binary);
    if (!stream) {
        return nullptr;
    }
    return fromBytes(
        std::string((std::istreambuf_iterator<char>(stream)), std::istreambuf_iterator<char>()));
}

std::shared_ptr<const MessageCatalog> MessageCatalog::fromBytes(std::string bytes) {
    if (bytes.size() > maximumCatalogueSize) {
        return nullptr;
    }
    // The catalogue owns the bytes first, so that its entries can refer into them.
    auto catalogue = std::make_shared<MessageCatalog>(std::move(bytes), nullptr, Passkey{});
    MoReader reader(catalogue->bytes_);
    if (!reader.readHeader()) {
        return nullptr;
    }
    bool headerSeen = false;
    for (std::uint32_t i = 0; i < reader.count(); ++i) {
        std::optional<std::string_view> original = reader.original(i);
        std::optional<std::string_view> translated = reader.translated(i);
        if (!original || !translated) {
            return nullptr;
        }
        // A plural entry's original is "<singular>\0<plural>"; lookups use the singular.
        std::string_view key = original->substr(0, original->find('\0'));
        if (translated->empty()) {
            continue;  // an untranslated entry: lookups fall back to the key
        }
        if (key.empty()) {
            // Only the first header entry counts, as for gettext.
            if (!headerSeen) {
                headerSeen = true;
                if (auto pluralForms = headerField(*translated, "Plural-Forms")) {
                    catalogue->rule_ = PluralRule::parse(*pluralForms);
                }
            }
            continue;
        }
        catalogue->messages_.emplace(key, *translated);
    }
    if (!catalogue->rule_) {
        catalogue->rule_ = PluralRule::english();
    }
    return catalogue;
}

std::shared_ptr<const MessageCatalog> MessageCatalog::find(
    const fs::path& directory, std::string_view domain, const std::vector<std::string>& languages) {
    std::string fileName = std::string(domain) + ".mo";
    for (const std::string& language : languages) {
        if (auto catalogue = open(directory / language / "LC_MESSAGES" / fileName)) {
            return catalogue;
        }
    }
    return nullptr;
}

std::vector<std::string> MessageCatalog::preferredLanguages() {
    std::vector<std::string> languages;
    if (const char* list = std::getenv("LANGUAGE"); list != nullptr) {
        std::string_view rest = list;
        while (!rest.empty()) {
            std::size_t colon = rest.find(':');
            appendLanguageVariants(rest.substr(0, colon), languages);
            rest = colon == std::string_view::npos ? std::string_view{} : rest.substr(colon + 1);
        }
    }
    for (const char* variable : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
        if (const char* locale = std::getenv(variable); locale != nullptr && locale[0] != '\0') {
            appendLanguageVariants(locale, languages);
            break;
        }
    }
    if (std::find(languages.begin(), languages.end(), "en") == languages.end()) {
        languages.emplace_back("en");
    }
    return languages;
}

std::vector<fs::path> MessageCatalog::libraryLocaleDirectories() {
    Dl_info info{};
    if (dladdr(&libraryAnchor, &info) == 0 || info.dli_fname == nullptr) {
        return {};
    }
    std::error_code error;
    fs::path library = fs::weakly_canonical(fs::absolute(info.dli_fname, error), error);
    fs::path directory = library.parent_path();
    return {(directory / KEL_INSTALLED_LOCALE_DIR).lexically_normal(), directory / "locale"};
}

std::shared_ptr<const MessageCatalog> MessageCatalog::library() {
    static std::once_flag once;
    static std::shared_ptr<const MessageCatalog> catalogue;  // written once under `once`
    std::call_once(once, [] {
        std::vector<fs::path> directories = libraryLocaleDirectories();
        for (const std::string& language : preferredLanguages()) {
            for (const fs::path& directory : directories) {
                catalogue = find(directory, libraryDomain, {language});
                if (catalogue) {
                    return;
                }
            }
        }
    });
    return catalogue;
}

std::optional<std::string_view> MessageCatalog::translation(std::string_view key) const {
    auto found = messages_.find(key);
    if (found == messages_.end()) {
        return std::nullopt;
    }
    return nthForm(found->second, 0);
}

std::optional<std::string_view> MessageCatalog::pluralTranslation(std::string_view key,
                                                                  unsigned long n) const {
    auto found = messages_.find(key);
    if (found == messages_.end()) {
        return std::nullopt;
    }
    return nthForm(found->second, pluralIndex(n));
}

unsigned long MessageCatalog::pluralIndex(unsigned long n) const {
    return rule_->evaluate(n);
}

}  // namespace kel
