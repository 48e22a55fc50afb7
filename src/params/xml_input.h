// An XML file of others, read without harm: nothing is fetched, no entity is replaced but the five of XML,
// size and depth are bounded. What an element is called is told without its namespace.
//
// Threads: one at a time. Lifetime: nodes live as long as their XmlInput.
#pragma once

#include <cstddef>
#include <pugixml.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "core/result.h"

namespace lm::params {

class XmlInput {
  public:
    XmlInput() = default;
    XmlInput(const XmlInput&) = delete;
    XmlInput& operator=(const XmlInput&) = delete;

    /// The bytes in UTF-8, UTF-16 with its mark, or ISO-8859-1 as their declaration says. Errors
    /// (invalidArgument, unsupported) tell the line.
    Result<void> load(std::string_view bytes);

    /// The outermost element.
    pugi::xml_node root() const { return document_.document_element(); }
    /// Of an element of this file, counted from 1.
    std::size_t lineOf(pugi::xml_node node) const;

  private:
    std::size_t lineAt(std::size_t offset) const;
    Error fault(std::size_t offset, std::string_view what) const;
    Result<void> decode(std::string_view bytes);
    Result<void> checkText() const;
    Result<void> parse();
    Result<void> checkDepth() const;

    std::string text_;  // the document points into it
    std::vector<std::size_t> lineStarts_;
    pugi::xml_document document_;
};

std::string_view localName(pugi::xml_node node);
/// The first child element of this name; an empty node when there is none.
pugi::xml_node childOf(pugi::xml_node parent, std::string_view name);
std::vector<pugi::xml_node> childrenOf(pugi::xml_node parent, std::string_view name);
/// The text of an element as it is, of an empty node "".
std::string textOf(pugi::xml_node node);

}  // namespace lm::params
