#include "Plan/DotLines.h"

#include "Runtime/Text.h"

#include <cctype>

namespace Plan {

/// Goes through the statements as Graphviz's grammar has them.
class DotLines::Scanner {
public:
    Scanner(std::string_view text, DotLines& lines) : text_{text}, lines_{lines} { next(); }

    void graph() {
        while (token_.kind != Kind::end && !is("{")) next();
        next();
        while (token_.kind != Kind::end && !is("}")) statement();
        lines_.end_ = at_;
        if (!is("}")) return;
        next();
        if (token_.kind != Kind::end && lines_.problem_.empty())
            lines_.problem_ =
                Runtime::concat("something stands behind the end of the graph in line ", token_.line);
    }

private:
    enum class Kind { end, name, mark };
    static constexpr unsigned mostDepth = 100;
    struct Token {
        Kind kind = Kind::end;
        std::string text{};
        unsigned line = 1;
    };

    [[nodiscard]] bool is(std::string_view mark) const {
        return token_.kind == Kind::mark && token_.text == mark;
    }
    [[nodiscard]] bool starts(std::string_view with) const { return text_.substr(at_).starts_with(with); }
    void step() {
        if (text_[at_] == '\n') ++line_;
        ++at_;
    }
    void skipTo(std::string_view end) {
        while (at_ < text_.size() && !starts(end)) step();
        for (std::size_t i = 0; i < end.size() && at_ < text_.size(); ++i) step();
    }
    void skipBlanks() {
        while (at_ < text_.size()) {
            if (starts("//") || (text_[at_] == '#' && (at_ == 0 || text_[at_ - 1] == '\n'))) {
                skipTo("\n");
            } else if (starts("/*")) {
                skipTo("*/");
            } else if (std::isspace(static_cast<unsigned char>(text_[at_])) != 0) {
                step();
            } else {
                return;
            }
        }
    }
    [[nodiscard]] static bool inName(char c) {
        return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_' || c == '.' ||
               static_cast<unsigned char>(c) >= 0x80;
    }

    void quoted() {
        for (step(); at_ < text_.size() && text_[at_] != '"'; step()) {
            if (starts("\\\"")) {
                step();
            } else if (starts("\\\n")) {
                step();
                continue;
            }
            token_.text += text_[at_];
        }
        if (at_ < text_.size()) step();
    }
    void html() {
        int depth = 0;
        do {
            depth += text_[at_] == '<' ? 1 : text_[at_] == '>' ? -1 : 0;
            token_.text += text_[at_];
            step();
        } while (depth > 0 && at_ < text_.size());
    }

    void next() {
        skipBlanks();
        token_ = {.kind = Kind::mark, .line = line_};
        if (at_ >= text_.size()) {
            token_.kind = Kind::end;
        } else if (text_[at_] == '"') {
            token_.kind = Kind::name;
            quoted();
            // "a" + "b"
            for (skipBlanks(); at_ < text_.size() && text_[at_] == '+'; skipBlanks()) {
                step();
                skipBlanks();
                if (at_ < text_.size() && text_[at_] == '"') quoted();
            }
        } else if (text_[at_] == '<') {
            token_.kind = Kind::name;
            html();
        } else if (starts("--") || starts("->")) {
            token_.text = text_.substr(at_, 2);
            at_ += 2;
        } else if (inName(text_[at_]) || text_[at_] == '-') {
            token_.kind = Kind::name;
            do {
                token_.text += text_[at_];
                step();
            } while (at_ < text_.size() && inName(text_[at_]));
        } else {
            token_.text = text_[at_];
            step();
        }
    }
    bool take(std::string_view mark) {
        if (!is(mark)) return false;
        next();
        return true;
    }

    /// "[a=b, c=d]", as often as it comes.
    Attributes attributes() {
        Attributes all;
        while (take("[")) {
            while (token_.kind != Kind::end && !take("]")) {
                if (token_.kind == Kind::name) {
                    all[token_.text] = token_.line;
                    next();
                    if (take("=")) next();
                } else {
                    next();
                }
            }
        }
        return all;
    }

    /// A node, or what stands between braces; gives the names.
    std::vector<std::string> group() {
        std::vector<std::string> names;
        if (token_.kind == Kind::name && token_.text == "subgraph") {
            next();
            if (token_.kind == Kind::name) next();
        }
        if (is("{") && ++depth_ > mostDepth) {
            if (lines_.problem_.empty())
                lines_.problem_ =
                    Runtime::concat("braces are nested more than ", mostDepth, " deep in line ", token_.line);
            at_ = text_.size();
        }
        if (take("{")) {
            while (token_.kind != Kind::end && !take("}")) {
                for (std::string& name : statement()) names.push_back(std::move(name));
            }
            --depth_;
            return names;
        }
        if (token_.kind != Kind::name) {
            next();
            return names;
        }
        names.push_back(token_.text);
        lines_.nodes_.try_emplace(token_.text, token_.line);
        next();
        for (int i = 0; i < 2 && take(":"); ++i) next();
        return names;
    }

    /// Gives the nodes that it names.
    std::vector<std::string> statement() {
        if (take(";") || take(",")) return {};
        const Token first = token_;
        if (first.kind == Kind::name &&
            (first.text == "graph" || first.text == "node" || first.text == "edge")) {
            next();
            Attributes& defaults = first.text == "graph"  ? lines_.graphAttributes_
                                   : first.text == "node" ? lines_.nodeDefaults_
                                                          : edgeDefaults_;
            for (const auto& [name, line] : attributes()) defaults[name] = line;
            return {};
        }
        std::vector<std::string> all = group();
        if (take("=")) {
            lines_.nodes_.erase(first.text);
            lines_.graphAttributes_[first.text] = first.line;
            next();
            return {};
        }
        std::vector<std::pair<std::string, std::string>> pairs;
        std::vector<std::string> from = all;
        bool edges = false;
        while (token_.kind == Kind::mark && (token_.text == "--" || token_.text == "->")) {
            edges = true;
            next();
            const std::vector<std::string> to = group();
            for (const std::string& a : from) {
                for (const std::string& b : to) pairs.emplace_back(a, b);
            }
            all.insert(all.end(), to.begin(), to.end());
            from = to;
        }
        const Attributes own = attributes();
        if (!edges) {
            for (const std::string& name : all) {
                lines_.statements_.insert(name);
                for (const auto& [attribute, line] : lines_.nodeDefaults_)
                    lines_.nodeAttributes_[name].try_emplace(attribute, line);
                for (const auto& [attribute, line] : own) lines_.nodeAttributes_[name][attribute] = line;
            }
        }
        for (const auto& pair : pairs) {
            Edge edge{.line = first.line, .attributes = own};
            edge.attributes.insert(edgeDefaults_.begin(), edgeDefaults_.end());
            lines_.edges_[pair].push_back(std::move(edge));
        }
        return all;
    }

    std::string_view text_;
    DotLines& lines_;
    std::size_t at_ = 0;
    unsigned line_ = 1;
    Token token_{};
    unsigned depth_ = 0;
    Attributes edgeDefaults_{};
};

DotLines::DotLines(std::string_view text) { Scanner{text, *this}.graph(); }

unsigned DotLines::node(const std::string& name) const {
    const auto at = nodes_.find(name);
    return at == nodes_.end() ? 0 : at->second;
}

unsigned DotLines::node(const std::string& name, const std::string& attribute) const {
    if (const auto of = nodeAttributes_.find(name); of != nodeAttributes_.end()) {
        if (const auto at = of->second.find(attribute); at != of->second.end()) return at->second;
    }
    return node(name);
}

unsigned DotLines::graph(const std::string& attribute) const {
    const auto at = graphAttributes_.find(attribute);
    return at == graphAttributes_.end() ? 1 : at->second;
}

unsigned DotLines::Edge::of(const std::string& attribute) const {
    const auto at = attributes.find(attribute);
    return at == attributes.end() ? line : at->second;
}

DotLines::Edge DotLines::takeEdge(const std::string& tail, const std::string& head) {
    const auto at = edges_.find({tail, head});
    if (at == edges_.end() || at->second.empty()) return {};
    Edge edge = std::move(at->second.front());
    at->second.pop_front();
    return edge;
}

}  // namespace Plan
