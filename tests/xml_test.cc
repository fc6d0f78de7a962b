// test-links: mxml
#include "vorn_xml.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>

#include "support/scratch.hpp"

namespace {

constexpr char kDocument[] = "<?xml version=\"1.0\"?>"
                             "<node><disk slot='1' kind='ssd'>one two</disk>"
                             "<bay><disk slot='2' kind='hdd'/><disk slot='3' kind='ssd'/></bay>"
                             "<disk slot='4' kind='hdd'/></node>";

class Xml : public testing::Test {
protected:
  mxml_node_t *load(const std::string &document) {
    scratch::write_file(directory_ / "document", document);
    const int fd = open((directory_ / "document").c_str(), O_RDONLY | O_CLOEXEC);
    mxml_node_t *node = vorn_xml_loadfd(nullptr, fd, MXML_OPAQUE_CALLBACK);
    EXPECT_EQ(close(fd), 0); // left open by the load
    return node;
  }
  scratch::Directory directory_;
};

std::string slot(mxml_node_t *node) {
  const char *value = vorn_xml_element_getattr(node, "slot");
  return value == nullptr ? "none" : value;
}

TEST_F(Xml, WalksADocument) {
  mxml_node_t *xml = load(kDocument);
  ASSERT_NE(xml, nullptr);
  mxml_node_t *node = vorn_xml_getfirstchild(xml);
  mxml_node_t *first = vorn_xml_getfirstchild(node);
  EXPECT_EQ(slot(first), "1");
  EXPECT_STREQ(mxmlGetOpaque(first), "one two");
  EXPECT_STREQ(vorn_xml_element_getattr(first, "kind"), "ssd");
  EXPECT_EQ(vorn_xml_element_getattr(first, "size"), nullptr);
  mxml_node_t *bay = vorn_xml_getnextsibling(first);
  EXPECT_STREQ(mxmlGetElement(bay), "bay");
  mxml_node_t *last = vorn_xml_getnextsibling(bay);
  EXPECT_EQ(slot(last), "4");
  EXPECT_EQ(vorn_xml_getnextsibling(last), nullptr);
  EXPECT_EQ(vorn_xml_getfirstchild(last), nullptr);
  EXPECT_EQ(vorn_xml_findpath(xml, "node/bay/disk"), vorn_xml_getfirstchild(bay));
  EXPECT_EQ(vorn_xml_findpath(bay, "node"), nullptr);

  EXPECT_EQ(slot(vorn_xml_findelement(xml, xml, nullptr, "kind", "hdd", MXML_DESCEND)), "2");
  EXPECT_EQ(slot(vorn_xml_findelement(xml, xml, "disk", "slot", "3", MXML_DESCEND)), "3");
  EXPECT_EQ(vorn_xml_findelement(bay, bay, "disk", "slot", "4", MXML_DESCEND), nullptr);

  vorn_xml_del(bay);
  EXPECT_EQ(vorn_xml_getnextsibling(first), last);
  vorn_xml_del(xml);
}

TEST_F(Xml, GivesNothingForADamagedDocument) {
  mxmlSetErrorCallback([](const char *) {}); // it would go to standard error
  EXPECT_EQ(load(""), nullptr);
  EXPECT_EQ(load("<node><disk></node>"), nullptr);
  EXPECT_EQ(vorn_xml_loadfd(nullptr, -1, nullptr), nullptr);
  vorn_xml_del(nullptr);
}

} // namespace
