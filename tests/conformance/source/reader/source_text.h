// A C++ source as the rules read it: its tokens without comments and preprocessor lines, and those beside them.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace source
{
enum class TokenKind
{
    Word, // also keywords
    Number,
    String, // with its quotation marks and prefix
    Character,
    Mark // one character, but `::` and `->` are one
};

struct Token
{
    TokenKind Kind;
    std::string_view Text;
    int Line;

    bool Is(std::string_view text) const { return Text == text && Kind != TokenKind::String; }
    bool IsWord() const { return Kind == TokenKind::Word; }
};

// Comments of whole lines that follow each other are one.
struct Comment
{
    int FirstLine;
    int LastLine;
    std::string_view Text;
};

// For `#include "x.h"` the name is `include` and the rest is `"x.h"`.
struct Directive
{
    int Line;
    std::string_view Name;
    std::string_view Rest;
};

struct SourceText
{
    std::string Path; // from the top of the tree
    std::shared_ptr<const std::string> Text;
    std::vector<std::string_view> Lines; // Lines[0] is line 1
    std::vector<Token> Tokens;
    std::vector<Comment> Comments;
    std::vector<Directive> Directives;

    bool IsHeader() const { return Path.ends_with(".h"); }
};

// Takes the text apart. What no compiler accepts gives some tokens or other, never a failure.
SourceText ReadSource(std::string path, std::string text);

// The token that closes the bracket at `open`, or the number of tokens where none does.
size_t ClosingToken(const std::vector<Token>& tokens, size_t open);

// The texts of the tokens from `first` to before `end`, joined by nothing, so that two spellings compare equal.
std::string Joined(const std::vector<Token>& tokens, size_t first, size_t end);

// The path in an `#include "path"`, and nothing for other directives and for `#include <path>`.
std::string_view QuotedInclude(const Directive& directive);
// The same for `#include <path>`.
std::string_view AngledInclude(const Directive& directive);
}
