// LibXml2Parser: the XML parser adapter over libxml2.
//
// Documents are read with xmlCtxtReadMemory and no encoding override, so the
// document's own declaration decides the encoding. Network access is off, no DTD is
// loaded and entities are never substituted; the text and attribute accessors walk
// the nodes themselves and skip entity references, so a document full of nested
// entities (or external ones) cannot make them expand. Parse errors are logged, not
// printed.
#include <libxml/parser.h>
#include <libxml/tree.h>
#include <libxml/xmlerror.h>

#include <memory>
#include <mutex>

#include "spi/log.h"
#include "spi/xml/libxml2_parser.h"

namespace ZEL::SPI {
namespace {

using DocumentHandle = std::shared_ptr<xmlDoc>;

std::string toString(const xmlChar* text) {
    return text ? std::string(reinterpret_cast<const char*>(text)) : std::string();
}

// Appends the character data below `node` in document order, leaving entity
// references (and whatever an entity would expand to) out.
void appendText(const xmlNode* node, std::string& out) {
    for (const xmlNode* child = node->children; child; child = child->next) {
        switch (child->type) {
            case XML_TEXT_NODE:
            case XML_CDATA_SECTION_NODE:
                out += toString(child->content);
                break;
            case XML_ELEMENT_NODE:
                appendText(child, out);
                break;
            default:
                break;
        }
    }
}

std::string qualifiedName(const xmlNode* node) {
    std::string name = toString(node->name);
    if (node->ns && node->ns->prefix) {
        return toString(node->ns->prefix) + ":" + name;
    }
    return name;
}

class LibXml2Element final : public XmlElement {
  public:
    LibXml2Element(DocumentHandle document, const xmlNode* node)
        : document_(std::move(document)), node_(node) {}

    std::string nodeName() const override { return qualifiedName(node_); }
    std::string text() const override {
        std::string out;
        appendText(node_, out);
        return out;
    }
    std::string namespaceURI() const override {
        return node_->ns ? toString(node_->ns->href) : std::string();
    }
    std::string prefix() const override {
        return node_->ns ? toString(node_->ns->prefix) : std::string();
    }
    std::string name() const override { return qualifiedName(node_); }
    std::unique_ptr<XmlNodeList> childNodes() const override;
    std::string getAttribute(const std::string&, const std::string& name) const override {
        return getAttributeNode(name).value_or(std::string());
    }
    std::optional<std::string> getAttributeNode(const std::string& name) const override {
        for (const xmlAttr* attribute = node_->properties; attribute; attribute = attribute->next) {
            if (qualifiedName(reinterpret_cast<const xmlNode*>(attribute)) == name) {
                std::string value;
                appendText(reinterpret_cast<const xmlNode*>(attribute), value);
                return value;
            }
        }
        return std::nullopt;
    }

  private:
    DocumentHandle document_;  // keeps node_ alive
    const xmlNode* node_;
};

class LibXml2NodeList final : public XmlNodeList {
  public:
    LibXml2NodeList(DocumentHandle document, const xmlNode* parent)
        : document_(std::move(document)) {
        for (const xmlNode* child = parent->children; child; child = child->next) {
            if (child->type == XML_ELEMENT_NODE) {
                elements_.push_back(child);
            }
        }
    }
    std::unique_ptr<XmlElement> item(size_t index) const override {
        if (index >= elements_.size()) {
            return nullptr;
        }
        return std::make_unique<LibXml2Element>(document_, elements_[index]);
    }
    size_t length() const override { return elements_.size(); }

  private:
    DocumentHandle document_;
    std::vector<const xmlNode*> elements_;
};

std::unique_ptr<XmlNodeList> LibXml2Element::childNodes() const {
    return std::make_unique<LibXml2NodeList>(document_, node_);
}

class LibXml2Document final : public XmlDocument {
  public:
    explicit LibXml2Document(DocumentHandle document) : document_(std::move(document)) {}
    std::unique_ptr<XmlElement> documentElement() const override {
        return std::make_unique<LibXml2Element>(document_, xmlDocGetRootElement(document_.get()));
    }

  private:
    DocumentHandle document_;
};

class LibXml2Parser final : public XmlParser {
  public:
    LibXml2Parser() : category_(getLogger("ZEL.SPI.XML.LibXml2Parser")) {}
    std::unique_ptr<XmlDocument> parse(const char* bytes, size_t length) override;

  private:
    Logger& category_;
};

// No network, no DTD loading, no entity substitution, no messages on stderr.
constexpr int kParseOptions = XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING;

void ignoreMessage(void*, const char*, ...) {}

// Some messages (encoding conversion errors) bypass the parse options and go to
// libxml2's generic handler, stderr by default. The handler is per thread: silence
// it for one parse and give the application its own handler back afterwards.
class QuietGenericErrors {
  public:
    QuietGenericErrors() : handler_(xmlGenericError), context_(xmlGenericErrorContext) {
        xmlSetGenericErrorFunc(nullptr, ignoreMessage);
    }
    ~QuietGenericErrors() { xmlSetGenericErrorFunc(context_, handler_); }
    QuietGenericErrors(const QuietGenericErrors&) = delete;
    QuietGenericErrors& operator=(const QuietGenericErrors&) = delete;

  private:
    xmlGenericErrorFunc handler_;
    void* context_;
};

std::unique_ptr<XmlDocument> LibXml2Parser::parse(const char* bytes, size_t length) {
    if (bytes == nullptr || length == 0 || length > static_cast<size_t>(INT32_MAX)) {
        ZEL_LOG_ERROR(category_, "failed to load xml");
        return nullptr;
    }
    QuietGenericErrors quiet;
    std::unique_ptr<xmlParserCtxt, void (*)(xmlParserCtxtPtr)> context(xmlNewParserCtxt(),
                                                                       xmlFreeParserCtxt);
    if (!context) {
        ZEL_LOG_ERROR(category_, "failed to create xml parser context");
        return nullptr;
    }
    DocumentHandle document(xmlCtxtReadMemory(context.get(), bytes, static_cast<int>(length),
                                              nullptr, nullptr, kParseOptions),
                            xmlFreeDoc);
    if (!document || xmlDocGetRootElement(document.get()) == nullptr) {
        const xmlError* error = xmlCtxtGetLastError(context.get());
        ZEL_LOG_ERROR(category_, "failed to load xml");
        if (error) {
            ZEL_LOG_DEBUG(category_, "code: %d, line %d, message: %s", error->code, error->line,
                          error->message ? error->message : "");
        }
        return nullptr;
    }
    return std::make_unique<LibXml2Document>(std::move(document));
}

}  // namespace

std::unique_ptr<XmlParser> newLibXml2Parser() {
    static std::once_flag initialised;
    std::call_once(initialised, [] { xmlInitParser(); });
    return std::make_unique<LibXml2Parser>();
}

}  // namespace ZEL::SPI
