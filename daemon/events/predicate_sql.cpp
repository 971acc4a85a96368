#include "daemon/events/predicate_sql.h"

namespace gw::daemon {
namespace {

using events::CompareOp;
using events::PredicateNode;

const char* sqlOperator(CompareOp op) {
  switch (op) {
    case CompareOp::Equal:
      return " = ";
    case CompareOp::NotEqual:
      return " <> ";
    case CompareOp::Less:
      return " < ";
    case CompareOp::LessOrEqual:
      return " <= ";
    case CompareOp::Greater:
      return " > ";
    case CompareOp::GreaterOrEqual:
      return " >= ";
    default:
      return " = ";
  }
}

// "<subject> op ?" for one column or field value, binding the literal as often as it is used.
void compare(const std::string& subject, const PredicateNode& node, SqlCondition* out) {
  plist::Value literal = node.literal;
  // Times are stored as seconds since 1970; a date literal is compared as one.
  if (literal.isDate()) literal = plist::Value(literal.date().unixTime());
  switch (node.op) {
    case CompareOp::Contains:
      out->text += "instr(" + subject + ", ?) > 0";
      out->params.push_back(literal);
      return;
    case CompareOp::BeginsWith:
      out->text += "substr(" + subject + ", 1, length(?)) = ?";
      out->params.push_back(literal);
      out->params.push_back(literal);
      return;
    default:
      out->text += subject + sqlOperator(node.op) + "?";
      out->params.push_back(literal);
  }
}

void compile(const PredicateNode& node, SqlCondition* out) {
  switch (node.kind) {
    case PredicateNode::Kind::Compare:
      if (node.field == "time") {
        compare("e.at", node, out);
      } else if (node.field == "entity") {
        compare("e.kind", node, out);
      } else if (node.field == "uid") {
        compare("e.uid", node, out);
      } else {
        out->text +=
            "EXISTS (SELECT 1 FROM event_fields f WHERE f.event_id = e.id AND f.name = ? AND ";
        out->params.push_back(plist::Value(node.field));
        compare("f.value", node, out);
        out->text += ")";
      }
      return;
    case PredicateNode::Kind::Not:
      out->text += "NOT (";
      compile(node.children.front(), out);
      out->text += ")";
      return;
    case PredicateNode::Kind::And:
    case PredicateNode::Kind::Or: {
      const char* joint = node.kind == PredicateNode::Kind::And ? " AND " : " OR ";
      out->text += "(";
      for (std::size_t i = 0; i < node.children.size(); ++i) {
        if (i > 0) out->text += joint;
        compile(node.children[i], out);
      }
      out->text += ")";
      return;
    }
  }
}

}  // namespace

SqlCondition compilePredicate(const PredicateNode& node) {
  SqlCondition out;
  compile(node, &out);
  return out;
}

int bindValue(sqlite3_stmt* statement, int index, const plist::Value& value) {
  switch (value.type()) {
    case plist::Type::String:
      return sqlite3_bind_text(statement, index, value.string().data(), int(value.string().size()),
                               SQLITE_TRANSIENT);
    case plist::Type::Integer:
      return sqlite3_bind_int64(statement, index, value.intValue());
    case plist::Type::Real:
      return sqlite3_bind_double(statement, index, value.real());
    case plist::Type::Boolean:
      return sqlite3_bind_int(statement, index, value.boolean() ? 1 : 0);
    case plist::Type::Date:
      return sqlite3_bind_double(statement, index, value.date().unixTime());
    default:
      return sqlite3_bind_null(statement, index);
  }
}

}  // namespace gw::daemon
