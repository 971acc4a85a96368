#include "events/predicate.h"

#include <gatewise/fetch_request.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>
#include <ctime>
#include <optional>

#include "platform/time/local_time.h"

namespace gw::events {
namespace {

enum class TokenKind { End, Identifier, String, Number, Date, Operator, LeftParen, RightParen };

struct Token {
  TokenKind kind = TokenKind::End;
  std::string text;  // identifier or keyword (as written), operator, string contents
  plist::Value value;
  std::size_t at = 0;
};

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (std::toupper(static_cast<unsigned char>(a[i])) != b[i]) return false;
  }
  return true;
}

// Splits the text into tokens; a lexing error ends the scan with *error set.
class Lexer {
 public:
  explicit Lexer(std::string_view text) : text_(text) {}

  bool next(Token* token, std::string* error) {
    while (pos_ < text_.size() && std::isspace(static_cast<unsigned char>(text_[pos_]))) ++pos_;
    token->at = pos_;
    token->text.clear();
    token->value = plist::Value();
    if (pos_ == text_.size()) {
      token->kind = TokenKind::End;
      return true;
    }
    char c = text_[pos_];
    if (c == '(' || c == ')') {
      token->kind = c == '(' ? TokenKind::LeftParen : TokenKind::RightParen;
      ++pos_;
      return true;
    }
    if (c == '"' || c == '\'') return string(token, error);
    if (std::isdigit(static_cast<unsigned char>(c)) ||
        (c == '-' && pos_ + 1 < text_.size() &&
         std::isdigit(static_cast<unsigned char>(text_[pos_ + 1])))) {
      return number(token, error);
    }
    if (std::isalpha(static_cast<unsigned char>(c)) || c == '_') {
      std::size_t start = pos_;
      while (pos_ < text_.size() &&
             (std::isalnum(static_cast<unsigned char>(text_[pos_])) || text_[pos_] == '_')) {
        ++pos_;
      }
      token->kind = TokenKind::Identifier;
      token->text = std::string(text_.substr(start, pos_ - start));
      return true;
    }
    for (std::string_view op : {"==", "!=", "<=", ">=", "<", ">", "="}) {
      if (text_.substr(pos_, op.size()) == op) {
        token->kind = TokenKind::Operator;
        token->text = op == "=" ? "==" : std::string(op);
        pos_ += op.size();
        return true;
      }
    }
    *error = "unexpected character '" + std::string(1, c) + "' at " + std::to_string(pos_);
    return false;
  }

 private:
  bool string(Token* token, std::string* error) {
    char quote = text_[pos_++];
    std::string out;
    while (pos_ < text_.size() && text_[pos_] != quote) {
      char c = text_[pos_++];
      if (c == '\\') {
        if (pos_ == text_.size()) break;
        char e = text_[pos_++];
        switch (e) {
          case 'n':
            c = '\n';
            break;
          case 't':
            c = '\t';
            break;
          case '"':
          case '\'':
          case '\\':
            c = e;
            break;
          default:
            *error = "unknown escape \\" + std::string(1, e) + " at " + std::to_string(pos_ - 2);
            return false;
        }
      }
      out += c;
    }
    if (pos_ == text_.size()) {
      *error = "unterminated string at " + std::to_string(token->at);
      return false;
    }
    ++pos_;
    token->kind = TokenKind::String;
    token->value = plist::Value(out);
    return true;
  }

  bool number(Token* token, std::string* error) {
    std::size_t start = pos_;
    // A date begins with four digits and a dash; it runs to the next space or parenthesis.
    if (text_.size() - pos_ >= 5 && text_[pos_ + 4] == '-' &&
        std::all_of(text_.begin() + pos_, text_.begin() + pos_ + 4,
                    [](char d) { return std::isdigit(static_cast<unsigned char>(d)); })) {
      while (pos_ < text_.size() && !std::isspace(static_cast<unsigned char>(text_[pos_])) &&
             text_[pos_] != '(' && text_[pos_] != ')') {
        ++pos_;
      }
      std::string_view literal = text_.substr(start, pos_ - start);
      std::optional<plist::Date> date = parseDateLiteral(literal);
      if (!date) {
        *error = "not a date: " + std::string(literal);
        return false;
      }
      token->kind = TokenKind::Date;
      token->value = plist::Value(*date);
      return true;
    }
    if (text_[pos_] == '-') ++pos_;
    bool real = false;
    while (pos_ < text_.size() &&
           (std::isdigit(static_cast<unsigned char>(text_[pos_])) || text_[pos_] == '.')) {
      real = real || text_[pos_] == '.';
      ++pos_;
    }
    std::string_view literal = text_.substr(start, pos_ - start);
    token->kind = TokenKind::Number;
    if (real) {
      double value = 0;
      auto [end, ec] = std::from_chars(literal.data(), literal.data() + literal.size(), value);
      if (ec != std::errc() || end != literal.data() + literal.size() || !std::isfinite(value)) {
        *error = "not a number: " + std::string(literal);
        return false;
      }
      token->value = plist::Value(value);
    } else {
      std::int64_t value = 0;
      auto [end, ec] = std::from_chars(literal.data(), literal.data() + literal.size(), value);
      if (ec != std::errc() || end != literal.data() + literal.size()) {
        *error = "not a number: " + std::string(literal);
        return false;
      }
      token->value = plist::Value(value);
    }
    return true;
  }

  std::string_view text_;
  std::size_t pos_ = 0;
};

class Parser {
 public:
  explicit Parser(std::string_view text) : lexer_(text) {}

  ParsedPredicate parse() {
    ParsedPredicate result;
    if (!advance()) return failed();
    if (token_.kind == TokenKind::End) {
      result.ok = true;
      return result;
    }
    std::optional<PredicateNode> node = orExpression(0);
    if (!node) return failed();
    if (token_.kind != TokenKind::End) {
      error_ = "unexpected text at " + std::to_string(token_.at);
      return failed();
    }
    result.ok = true;
    result.root = std::make_unique<PredicateNode>(std::move(*node));
    return result;
  }

 private:
  ParsedPredicate failed() {
    ParsedPredicate result;
    result.error = error_;
    return result;
  }

  bool advance() { return lexer_.next(&token_, &error_); }

  bool keyword(std::string_view word) const {
    return token_.kind == TokenKind::Identifier && equalsIgnoringCase(token_.text, word);
  }

  bool tooDeep(std::size_t depth) {
    if (depth < kGWMaxPredicateDepth) return false;
    error_ = "predicate nested too deeply";
    return true;
  }

  // or := and ("OR" and)*; and := not ("AND" not)*
  std::optional<PredicateNode> orExpression(std::size_t depth) {
    return binary(depth, "OR", PredicateNode::Kind::Or, &Parser::andExpression);
  }
  std::optional<PredicateNode> andExpression(std::size_t depth) {
    return binary(depth, "AND", PredicateNode::Kind::And, &Parser::notExpression);
  }

  std::optional<PredicateNode> binary(
      std::size_t depth, std::string_view word, PredicateNode::Kind kind,
      std::optional<PredicateNode> (Parser::*operand)(std::size_t)) {
    std::optional<PredicateNode> first = (this->*operand)(depth);
    if (!first || !keyword(word)) return first;
    PredicateNode node;
    node.kind = kind;
    node.children.push_back(std::move(*first));
    while (keyword(word)) {
      if (!advance()) return std::nullopt;
      std::optional<PredicateNode> next = (this->*operand)(depth);
      if (!next) return std::nullopt;
      node.children.push_back(std::move(*next));
    }
    return node;
  }

  // not := "NOT" not | "(" or ")" | comparison
  std::optional<PredicateNode> notExpression(std::size_t depth) {
    if (tooDeep(depth)) return std::nullopt;
    if (keyword("NOT")) {
      if (!advance()) return std::nullopt;
      std::optional<PredicateNode> inner = notExpression(depth + 1);
      if (!inner) return std::nullopt;
      PredicateNode node;
      node.kind = PredicateNode::Kind::Not;
      node.children.push_back(std::move(*inner));
      return node;
    }
    if (token_.kind == TokenKind::LeftParen) {
      if (!advance()) return std::nullopt;
      std::optional<PredicateNode> inner = orExpression(depth + 1);
      if (!inner) return std::nullopt;
      if (token_.kind != TokenKind::RightParen) {
        error_ = "missing ')' at " + std::to_string(token_.at);
        return std::nullopt;
      }
      if (!advance()) return std::nullopt;
      return inner;
    }
    return comparison();
  }

  std::optional<PredicateNode> comparison() {
    if (token_.kind != TokenKind::Identifier) {
      error_ = "expected a field name at " + std::to_string(token_.at);
      return std::nullopt;
    }
    if (++terms_ > kGWMaxPredicateTerms) {
      error_ = "too many comparisons";
      return std::nullopt;
    }
    PredicateNode node;
    node.field = token_.text;
    std::optional<GWEventFieldKind> kind = GWEventFieldKindOf(node.field);
    if (!kind) {
      error_ = "unknown field \"" + node.field + "\"";
      return std::nullopt;
    }
    if (!advance()) return std::nullopt;
    if (!compareOp(&node.op)) return std::nullopt;
    if (!advance()) return std::nullopt;
    if (!literal(&node.literal)) return std::nullopt;
    if (!fits(node, *kind)) return std::nullopt;
    if (!advance()) return std::nullopt;
    return node;
  }

  bool compareOp(CompareOp* op) {
    static constexpr std::pair<std::string_view, CompareOp> kOps[] = {
        {"==", CompareOp::Equal},
        {"!=", CompareOp::NotEqual},
        {"<", CompareOp::Less},
        {"<=", CompareOp::LessOrEqual},
        {">", CompareOp::Greater},
        {">=", CompareOp::GreaterOrEqual},
        {"CONTAINS", CompareOp::Contains},
        {"BEGINSWITH", CompareOp::BeginsWith}};
    for (const auto& [text, value] : kOps) {
      bool match = token_.kind == TokenKind::Operator ? token_.text == text : keyword(text);
      if (match) {
        *op = value;
        return true;
      }
    }
    error_ = "expected a comparison at " + std::to_string(token_.at);
    return false;
  }

  bool literal(plist::Value* value) {
    switch (token_.kind) {
      case TokenKind::String:
      case TokenKind::Number:
      case TokenKind::Date:
        *value = token_.value;
        return true;
      case TokenKind::Identifier:
        if (keyword("TRUE") || keyword("FALSE")) {
          *value = plist::Value(keyword("TRUE"));
          return true;
        }
        break;
      default:
        break;
    }
    error_ = "expected a value at " + std::to_string(token_.at);
    return false;
  }

  // Whether the literal suits the field and the operator.
  bool fits(const PredicateNode& node, GWEventFieldKind kind) {
    const plist::Value& v = node.literal;
    bool textOp = node.op == CompareOp::Contains || node.op == CompareOp::BeginsWith;
    bool ok = false;
    switch (kind) {
      case GWEventFieldKind::String:
        ok = v.isString();
        break;
      case GWEventFieldKind::Number:
        ok = !textOp && (v.isNumber() || v.isBoolean());
        break;
      case GWEventFieldKind::StringOrNumber:
        ok = v.isString() || (!textOp && (v.isNumber() || v.isBoolean()));
        break;
      case GWEventFieldKind::Date:
        ok = !textOp && (v.isDate() || v.isNumber());
        break;
    }
    if (ok && textOp && !v.isString()) ok = false;
    if (!ok) {
      error_ = "\"" + node.field + "\" cannot be compared so with " + plist::description(v);
      return false;
    }
    if (node.field == "entity" && !textOp && !GWIsKnownEventEntity(v.string())) {
      error_ = "unknown entity \"" + v.string() + "\"";
      return false;
    }
    return true;
  }

  Lexer lexer_;
  Token token_;
  std::string error_;
  std::size_t terms_ = 0;
};

int digits(std::string_view text, std::size_t at, std::size_t count) {
  if (at + count > text.size()) return -1;
  int value = 0;
  for (std::size_t i = at; i < at + count; ++i) {
    if (!std::isdigit(static_cast<unsigned char>(text[i]))) return -1;
    value = value * 10 + (text[i] - '0');
  }
  return value;
}

}  // namespace

std::optional<plist::Date> parseDateLiteral(std::string_view text) {
  int year = digits(text, 0, 4), month = digits(text, 5, 2), day = digits(text, 8, 2);
  if (year < 0 || month < 1 || month > 12 || day < 1 || day > 31 || text.size() < 10 ||
      text[4] != '-' || text[7] != '-') {
    return std::nullopt;
  }
  int hour = 0, minute = 0, second = 0;
  std::size_t pos = 10;
  if (pos < text.size() && (text[pos] == 'T' || text[pos] == ' ')) {
    hour = digits(text, pos + 1, 2);
    minute = digits(text, pos + 4, 2);
    if (hour < 0 || hour > 23 || minute < 0 || minute > 59 || text[pos + 3] != ':') {
      return std::nullopt;
    }
    pos += 6;
    if (pos < text.size() && text[pos] == ':') {
      second = digits(text, pos + 1, 2);
      if (second < 0 || second > 60) return std::nullopt;
      pos += 3;
    }
  }
  if (pos == text.size()) {
    return time::dateFromLocalTime(year, month, day, hour, minute, second);
  }
  int offset = 0;
  if (text[pos] == 'Z' && pos + 1 == text.size()) {
    offset = 0;
  } else if ((text[pos] == '+' || text[pos] == '-') && text.size() == pos + 6 &&
             text[pos + 3] == ':') {
    int h = digits(text, pos + 1, 2), m = digits(text, pos + 4, 2);
    if (h < 0 || h > 23 || m < 0 || m > 59) return std::nullopt;
    offset = (h * 3600 + m * 60) * (text[pos] == '-' ? -1 : 1);
  } else {
    return std::nullopt;
  }
  std::tm tm{};
  tm.tm_year = year - 1900;
  tm.tm_mon = month - 1;
  tm.tm_mday = day;
  tm.tm_hour = hour;
  tm.tm_min = minute;
  tm.tm_sec = second;
  std::time_t utc = ::timegm(&tm);
  return plist::Date::fromUnixTime(double(utc) - offset);
}

ParsedPredicate parsePredicate(std::string_view text) {
  if (text.size() > kGWMaxPredicateLength) {
    ParsedPredicate result;
    result.error = "predicate longer than " + std::to_string(kGWMaxPredicateLength) + " bytes";
    return result;
  }
  return Parser(text).parse();
}

}  // namespace gw::events

namespace gw {

bool GWIsValidEventPredicate(std::string_view text, std::string* error) {
  events::ParsedPredicate parsed = events::parsePredicate(text);
  if (!parsed.ok && error) *error = parsed.error;
  return parsed.ok;
}

}  // namespace gw
