#include "spi/xml/libxml2_parser.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

namespace ZEL::SPI {
namespace {

std::unique_ptr<XmlDocument> parse(const std::string& text) {
    auto parser = newLibXml2Parser();
    EXPECT_NE(parser, nullptr);
    return parser->parse(text.data(), text.size());
}

TEST(XmlParser, TextIsAllDescendantTextInOrder) {
    auto document = parse("<a>one<!-- no --><b>two<c><![CDATA[<three>]]></c></b><?pi x?>four</a>");
    ASSERT_NE(document, nullptr);
    auto root = document->documentElement();
    EXPECT_EQ(root->text(), "onetwo<three>four");
    EXPECT_EQ(root->childNodes()->length(), 1u);  // only elements are children
}

TEST(XmlParser, MalformedInputYieldsNull) {
    for (const std::string& text :
         {std::string(), std::string("not xml"), std::string("<a><b></a>"), std::string("<a>"),
          std::string("<a/><b/>"), std::string("<a x='1' x='2'/>"), std::string("\0<a/>", 5),
          std::string("<?xml version='1.0' encoding='no-such-encoding'?><a/>")}) {
        EXPECT_EQ(parse(text), nullptr) << text;
    }
}

TEST(XmlParser, HostileEntitiesNeverExpand) {
    // References are left out, never expanded (so no nest of them can blow up).
    auto small = parse(
        "<!DOCTYPE a [<!ENTITY l0 'lol'><!ENTITY l1 '&l0;&l0;&l0;'>]>"
        "<a v='x&l1;y'>x&l1;<b>&l1;y</b></a>");
    ASSERT_NE(small, nullptr);
    EXPECT_EQ(small->documentElement()->text(), "xy");
    EXPECT_EQ(small->documentElement()->getAttribute("", "v").find("lol"), std::string::npos);

    std::filesystem::path secret =
        std::filesystem::temp_directory_path() / ("zel_xml_secret_" + std::to_string(getpid()));
    std::ofstream(secret) << "TOPSECRET";
    auto external =
        parse("<!DOCTYPE a [<!ENTITY s SYSTEM 'file://" + secret.string() + "'>]><a>&s;</a>");
    if (external) {
        EXPECT_EQ(external->documentElement()->text().find("TOPSECRET"), std::string::npos);
    }
    std::filesystem::remove(secret);
}

}  // namespace
}  // namespace ZEL::SPI
