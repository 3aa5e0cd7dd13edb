// A small read-only DOM over a parsed XML document, enough to walk a server's answer.
//
// Ownership: every object handed out is owned by the caller through its unique_ptr
// and keeps the parsed document alive on its own, so an element may outlive the
// document object and the list it came from.
// Strings: UTF-8, converted from whatever encoding the document declares; an absent
// value is the empty string.
// Safety: parsing never touches the network, never loads a DTD and never expands
// entities; text() and getAttribute() leave entity references out.
// Threading: a parser and the objects it made may be used by one thread at a time;
// separate parsers may run on separate threads.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>

namespace ZEL::SPI {

class XmlNodeList;

class XmlElement {
  public:
    virtual ~XmlElement() = default;
    // The qualified name ("z:location" for a prefixed element).
    virtual std::string nodeName() const = 0;
    // All descendant text in document order (character data and CDATA).
    virtual std::string text() const = 0;
    // The namespace the element is in, or empty when in none.
    virtual std::string namespaceURI() const = 0;
    // The element's prefix, empty when it has none.
    virtual std::string prefix() const = 0;
    // The qualified name, as nodeName(): callers compare local names with it, so a
    // prefixed element never matches a bare local name.
    virtual std::string name() const = 0;
    // The child elements in document order (text, comments and the like are left out).
    virtual std::unique_ptr<XmlNodeList> childNodes() const = 0;
    // The value of the attribute whose qualified name is `name`, or empty when the
    // element has none. `namespaceUri` is ignored: the look-up is by name.
    virtual std::string getAttribute(const std::string& namespaceUri,
                                     const std::string& name) const = 0;
    // Like getAttribute(), but tells a missing attribute (nullopt) from an empty one.
    virtual std::optional<std::string> getAttributeNode(const std::string& name) const = 0;
};

class XmlNodeList {
  public:
    virtual ~XmlNodeList() = default;
    // The element at `index`, or null when `index` is not below length().
    virtual std::unique_ptr<XmlElement> item(size_t index) const = 0;
    virtual size_t length() const = 0;
};

class XmlDocument {
  public:
    virtual ~XmlDocument() = default;
    // The root element; never null for a document that parse() returned.
    virtual std::unique_ptr<XmlElement> documentElement() const = 0;
};

class XmlParser {
  public:
    virtual ~XmlParser() = default;
    // Parses `length` bytes as one XML document. Null (after logging "failed to load
    // xml") when the bytes are not a well-formed document.
    virtual std::unique_ptr<XmlDocument> parse(const char* bytes, size_t length) = 0;
};

}  // namespace ZEL::SPI
