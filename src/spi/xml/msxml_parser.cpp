// MSXMLSAXParser: the XML parser adapter over the MSXML DOM (DOMDocument 6.0, else
// 3.0) through COM. The whole answer is loaded from a byte array, so the document's
// own declaration decides the encoding. DTDs are prohibited and external resources
// never resolved: a document with a DOCTYPE is refused, so no entity reaches a caller.
// COM is initialised (multithreaded) on a thread that needs it, never uninitialised.
// Strings come back in the narrow text of the platform (spi/text.h).
#include <windows.h>
// after windows.h, which defines its types
#include <msxml2.h>
#include <oleauto.h>

#include <cstdio>
#include <cstring>
#include <new>
#include <vector>

#include "spi/log.h"
#include "spi/text.h"
#include "spi/xml/msxml_parser.h"

namespace ZEL::SPI {
namespace {

// mingw's import libraries lack these.
const CLSID kDomDocument60 = {
    0x88d96a05, 0xf192, 0x11d4, {0xa6, 0x5f, 0x00, 0x40, 0x96, 0x32, 0x51, 0xe5}};
const CLSID kDomDocument30 = {
    0xf5078f32, 0xc551, 0x11d3, {0x89, 0xb9, 0x00, 0x00, 0xf8, 0x1f, 0xe2, 0x21}};
const IID kIXMLDOMDocument2 = {
    0x2933bf95, 0x7b36, 0x11d2, {0xb2, 0x0e, 0x00, 0xc0, 0x4f, 0x98, 0x3e, 0x60}};

// One COM reference, released with the object.
template <typename T>
class Ref {
  public:
    Ref() = default;
    explicit Ref(T* pointer, bool addRef = false) : pointer_(pointer) {
        if (pointer_ != nullptr && addRef) {
            pointer_->AddRef();
        }
    }
    ~Ref() { reset(); }
    Ref(const Ref& other) : Ref(other.pointer_, true) {}
    Ref& operator=(const Ref&) = delete;
    void reset() {
        if (pointer_ != nullptr) {
            pointer_->Release();
            pointer_ = nullptr;
        }
    }
    T* get() const { return pointer_; }
    T** put() {
        reset();
        return &pointer_;
    }
    T* operator->() const { return pointer_; }

  private:
    T* pointer_ = nullptr;
};

Logger& category() {
    return getLogger("ZEL.SPI.Win32.MSXMLSAXParser");
}

// A BSTR handed out by COM, freed here; null is the empty text.
std::string takeString(BSTR text) {
    if (text == nullptr) {
        return {};
    }
    std::string narrow = toNarrow(std::wstring(text, SysStringLen(text)));
    SysFreeString(text);
    return narrow;
}

// The system's message for `code`, else the names COM gives unknown codes.
std::string messageOf(HRESULT code) {
    wchar_t* text = nullptr;
    DWORD length = FormatMessageW(
        FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
        nullptr, static_cast<DWORD>(code), 0, reinterpret_cast<wchar_t*>(&text), 0, nullptr);
    if (length > 0 && text != nullptr) {
        std::wstring message(text, length);
        LocalFree(text);
        while (!message.empty() && (message.back() == L'\n' || message.back() == L'\r')) {
            message.pop_back();
        }
        return toNarrow(message);
    }
    char fallback[64];
    auto value = static_cast<unsigned long>(code);
    if (value >= 0x80040200UL && value <= 0x8004FFFFUL) {
        std::snprintf(fallback, sizeof fallback, "IDispatch error #%d",
                      static_cast<int>(value - 0x80040200UL));
    } else {
        std::snprintf(fallback, sizeof fallback, "Unknown error 0x%0lX", value);
    }
    return fallback;
}

// Logs a failed COM call with its code, the code's message and the error description.
void logComError(HRESULT code) {
    std::string description;
    IErrorInfo* info = nullptr;
    if (GetErrorInfo(0, &info) == S_OK && info != nullptr) {
        BSTR text = nullptr;
        info->GetDescription(&text);
        description = takeString(text);
        info->Release();
    }
    ZEL_LOG_ERROR(category(), "code: 0x%X, message: %s, description: %s",
                  static_cast<unsigned>(code), messageOf(code).c_str(), description.c_str());
}

class MsxmlElement final : public XmlElement {
  public:
    explicit MsxmlElement(Ref<IXMLDOMNode> node) : node_(std::move(node)) {}

    std::string nodeName() const override { return read(&IXMLDOMNode::get_nodeName); }
    std::string text() const override { return read(&IXMLDOMNode::get_text); }
    std::string namespaceURI() const override { return read(&IXMLDOMNode::get_namespaceURI); }
    std::string prefix() const override { return read(&IXMLDOMNode::get_prefix); }
    std::string name() const override { return read(&IXMLDOMNode::get_nodeName); }
    std::unique_ptr<XmlNodeList> childNodes() const override;

    std::string getAttribute(const std::string&, const std::string& name) const override {
        return getAttributeNode(name).value_or(std::string());
    }

    std::optional<std::string> getAttributeNode(const std::string& name) const override {
        Ref<IXMLDOMElement> element;
        if (FAILED(node_->QueryInterface(IID_IXMLDOMElement,
                                         reinterpret_cast<void**>(element.put())))) {
            return std::nullopt;
        }
        BSTR wide = SysAllocString(toWide(name).c_str());
        Ref<IXMLDOMAttribute> attribute;
        HRESULT result = element->getAttributeNode(wide, attribute.put());
        SysFreeString(wide);
        if (result != S_OK || attribute.get() == nullptr) {
            return std::nullopt;
        }
        BSTR value = nullptr;
        attribute->get_text(&value);
        return takeString(value);
    }

  private:
    std::string read(HRESULT (STDMETHODCALLTYPE IXMLDOMNode::*get)(BSTR*)) const {
        BSTR text = nullptr;
        HRESULT result = (node_.get()->*get)(&text);
        if (FAILED(result)) {
            logComError(result);
            return {};
        }
        return takeString(text);
    }

    Ref<IXMLDOMNode> node_;
};

// The child elements, gathered once: the DOM's own list holds text and comments too.
class MsxmlNodeList final : public XmlNodeList {
  public:
    explicit MsxmlNodeList(std::vector<Ref<IXMLDOMNode>> elements)
        : elements_(std::move(elements)) {}
    std::unique_ptr<XmlElement> item(size_t index) const override {
        if (index >= elements_.size()) {
            return nullptr;
        }
        return std::make_unique<MsxmlElement>(elements_[index]);
    }
    size_t length() const override { return elements_.size(); }

  private:
    std::vector<Ref<IXMLDOMNode>> elements_;
};

std::unique_ptr<XmlNodeList> MsxmlElement::childNodes() const {
    std::vector<Ref<IXMLDOMNode>> elements;
    Ref<IXMLDOMNodeList> list;
    long length = 0;
    HRESULT result = node_->get_childNodes(list.put());
    if (SUCCEEDED(result)) {
        result = list->get_length(&length);
    }
    for (long i = 0; SUCCEEDED(result) && i < length; ++i) {
        Ref<IXMLDOMNode> child;
        DOMNodeType type = NODE_INVALID;
        result = list->get_item(i, child.put());
        if (SUCCEEDED(result) && child.get() != nullptr && SUCCEEDED(child->get_nodeType(&type)) &&
            type == NODE_ELEMENT) {
            elements.push_back(child);
        }
    }
    if (FAILED(result)) {
        logComError(result);
    }
    return std::make_unique<MsxmlNodeList>(std::move(elements));
}

class MsxmlDocument final : public XmlDocument {
  public:
    explicit MsxmlDocument(Ref<IXMLDOMDocument> document) : document_(std::move(document)) {}
    std::unique_ptr<XmlElement> documentElement() const override {
        Ref<IXMLDOMElement> root;
        HRESULT result = document_->get_documentElement(root.put());
        if (FAILED(result) || root.get() == nullptr) {
            logComError(result);
            return nullptr;
        }
        Ref<IXMLDOMNode> node;
        root->QueryInterface(IID_IXMLDOMNode, reinterpret_cast<void**>(node.put()));
        return std::make_unique<MsxmlElement>(std::move(node));
    }

  private:
    Ref<IXMLDOMDocument> document_;
};

// DOMDocument 6.0, else 3.0; COM is set up on this thread when it is not yet.
Ref<IXMLDOMDocument> createDocument() {
    Ref<IXMLDOMDocument> document;
    for (const CLSID* type : {&kDomDocument60, &kDomDocument30}) {
        auto create = [&] {
            return CoCreateInstance(*type, nullptr, CLSCTX_ALL, IID_IXMLDOMDocument,
                                    reinterpret_cast<void**>(document.put()));
        };
        HRESULT result = create();
        if (result == CO_E_NOTINITIALIZED) {
            CoInitializeEx(nullptr, COINIT_MULTITHREADED);
            result = create();
        }
        if (SUCCEEDED(result)) {
            return document;
        }
    }
    ZEL_LOG_ERROR(category(), "failed to create instance of DOMDocument");
    return document;
}

// No network, no DTD, no external resources, text exactly as written.
HRESULT makeSafe(IXMLDOMDocument* document) {
    HRESULT result = document->put_async(VARIANT_FALSE);
    if (SUCCEEDED(result))
        result = document->put_validateOnParse(VARIANT_FALSE);
    if (SUCCEEDED(result))
        result = document->put_resolveExternals(VARIANT_FALSE);
    if (SUCCEEDED(result))
        result = document->put_preserveWhiteSpace(VARIANT_TRUE);
    Ref<IXMLDOMDocument2> options;
    if (SUCCEEDED(result) && SUCCEEDED(document->QueryInterface(
                                 kIXMLDOMDocument2, reinterpret_cast<void**>(options.put())))) {
        VARIANT prohibit;
        VariantInit(&prohibit);
        prohibit.vt = VT_BOOL;
        prohibit.boolVal = VARIANT_TRUE;
        BSTR name = SysAllocString(L"ProhibitDTD");
        result = options->setProperty(name, prohibit);
        SysFreeString(name);
    }
    return result;
}

class MsxmlParser final : public XmlParser {
  public:
    std::unique_ptr<XmlDocument> parse(const char* bytes, size_t length) override {
        Ref<IXMLDOMDocument> document = createDocument();
        if (document.get() == nullptr) {
            return nullptr;
        }
        HRESULT result = makeSafe(document.get());
        if (FAILED(result)) {
            logComError(result);
            return nullptr;
        }
        SAFEARRAY* array = SafeArrayCreateVector(VT_UI1, 0, static_cast<ULONG>(length));
        void* data = nullptr;
        if (array == nullptr || FAILED(SafeArrayAccessData(array, &data))) {
            ZEL_LOG_ERROR(category(), "failed to load xml");
            if (array != nullptr) {
                SafeArrayDestroy(array);
            }
            return nullptr;
        }
        std::memcpy(data, bytes, length);
        SafeArrayUnaccessData(array);
        VARIANT source;
        VariantInit(&source);
        source.vt = VT_ARRAY | VT_UI1;
        source.parray = array;
        VARIANT_BOOL loaded = VARIANT_FALSE;
        result = document->load(source, &loaded);
        VariantClear(&source);
        // Refused here as well, where ProhibitDTD is not honoured (Wine's MSXML).
        Ref<IXMLDOMDocumentType> doctype;
        if (SUCCEEDED(result) && loaded == VARIANT_TRUE) {
            document->get_doctype(doctype.put());
        }
        if (FAILED(result) || loaded != VARIANT_TRUE || doctype.get() != nullptr) {
            ZEL_LOG_ERROR(category(), "failed to load xml");
            return nullptr;
        }
        return std::make_unique<MsxmlDocument>(std::move(document));
    }
};

}  // namespace

std::unique_ptr<XmlParser> newMsxmlParser() {
    return std::unique_ptr<XmlParser>(new (std::nothrow) MsxmlParser());
}

}  // namespace ZEL::SPI
