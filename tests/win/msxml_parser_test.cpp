// The MSXML DOM through COM: names as written, attributes, and hostile documents.
#include <gtest/gtest.h>

#include "spi/xml/msxml_parser.h"
#include "support/log_capture.h"

namespace ZEL::SPI {
namespace {

TEST(MsxmlParser, KeepsQualifiedNamesAndTellsMissingAttributesFromEmptyOnes) {
    std::string text = "<z:a xmlns:z='urn:z' e='' v='1'> x<b/>y<!--c--><z:c/></z:a>";
    auto document = newMsxmlParser()->parse(text.data(), text.size());
    ASSERT_NE(document, nullptr);
    auto root = document->documentElement();
    EXPECT_EQ(root->name(), "z:a");
    EXPECT_EQ(root->prefix(), "z");
    EXPECT_EQ(root->namespaceURI(), "urn:z");
    EXPECT_EQ(root->text(), " xy");
    EXPECT_EQ(root->getAttribute("", "v"), "1");
    EXPECT_EQ(root->getAttributeNode("e"), std::optional<std::string>(""));
    EXPECT_EQ(root->getAttributeNode("missing"), std::nullopt);
    auto children = root->childNodes();
    ASSERT_EQ(children->length(), 2u);  // elements only
    EXPECT_EQ(children->item(1)->nodeName(), "z:c");
    EXPECT_EQ(children->item(2), nullptr);
}

TEST(MsxmlParser, RefusesMalformedDocumentsAndAnyDoctype) {
    Testing::LogCapture log("ZEL.SPI.Win32.MSXMLSAXParser");
    for (const std::string& text :
         {std::string(), std::string("not xml"), std::string("<a><b></a>"), std::string("<a/><b/>"),
          std::string("<!DOCTYPE a [<!ENTITY l0 'lol'><!ENTITY l1 '&l0;&l0;'>]><a>&l1;</a>"),
          std::string(
              "<!DOCTYPE a [<!ENTITY s SYSTEM 'file:///c:/windows/win.ini'>]><a>&s;</a>")}) {
        EXPECT_EQ(newMsxmlParser()->parse(text.data(), text.size()), nullptr) << text;
    }
    EXPECT_EQ(log.count(LogPriority::kError, "failed to load xml"), 6u);
}

}  // namespace
}  // namespace ZEL::SPI
