// test-links: mxml
// Tests access to XML documents.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_xml.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "support/scratch.hpp"

namespace {

constexpr char kDocument[] = "<?xml version=\"1.0\"?>"
                             "<node><disk slot='1' kind='ssd'/>"
                             "<bay><disk slot='2' kind='hdd'/></bay><disk slot='3' kind='ssd'/>"
                             "</node>";

TEST(Xml, WalksADocument) {
  const scratch::Directory directory;
  scratch::write_file(directory / "document", kDocument);
  const int fd = open((directory / "document").c_str(), O_RDONLY | O_CLOEXEC);
  mxml_node_t *xml = vorn_xml_loadfd(nullptr, fd, MXML_OPAQUE_CALLBACK);
  EXPECT_EQ(close(fd), 0); // left open by the load
  ASSERT_NE(xml, nullptr);

  mxml_node_t *first = vorn_xml_getfirstchild(vorn_xml_getfirstchild(xml));
  EXPECT_STREQ(vorn_xml_element_getattr(first, "slot"), "1");
  mxml_node_t *bay = vorn_xml_getnextsibling(first);
  mxml_node_t *second = vorn_xml_findpath(xml, "node/bay/disk");
  EXPECT_EQ(vorn_xml_getfirstchild(bay), second);
  EXPECT_EQ(vorn_xml_findelement(xml, xml, nullptr, "kind", "hdd", MXML_DESCEND), second);
  EXPECT_EQ(vorn_xml_findelement(bay, bay, "disk", "slot", "3", MXML_DESCEND), nullptr);
  vorn_xml_del(bay);
  EXPECT_STREQ(vorn_xml_element_getattr(vorn_xml_getnextsibling(first), "slot"), "3");
  vorn_xml_del(xml);
}

} // namespace
