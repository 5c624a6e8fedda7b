// The structure of style sheets: rules, and the declarations in them. Nothing is kept beyond one declaration.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "export/css_tokens.h"

namespace ternview {

/// @param property in lower case
/// @param value without white space at its ends
using DeclarationSink = std::function<void(const std::string& property, const std::vector<CssToken>& value)>;

/// Reads the declarations of a style attribute, or of the block of a rule. Ones with a name or value that cannot be a
/// declaration's, or of absurd length, are passed over.
void readDeclarations(std::string_view css, const DeclarationSink& sink);

/// @param prelude what stands in front of the block: selectors, or "@" with what belongs to it
/// @param block without its braces
using RuleSink = std::function<void(std::string_view prelude, std::string_view block)>;

/// Reads the rules of a style sheet, or of the block of an @media rule. Those without a block, such as @import, are passed over.
void readRules(std::string_view css, const RuleSink& sink);

}  // namespace ternview
