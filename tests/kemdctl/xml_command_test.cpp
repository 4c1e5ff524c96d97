// kemdctl xml.
#include "tests/kemdctl/ctl.h"

namespace {

TEST(KemdctlXml, ChecksDocumentsAndMarksTheFirstError) {
    WriteFile("/tmp/good.xml", "<?xml version='1.0' encoding='cp1252'?><a b='\xE4'/>");
    WriteFile("/tmp/bad.xml", "<a>\n  <b>\xC3\xA4\t </a>\n");
    ExpectAll("xml check ",
              {{"/tmp/good.xml", 0,
                "/tmp/good.xml: well-formed\n  encoding: windows-1252, from the declaration\n"
                "  size:     49 bytes, 1 node, 1 attribute\n  depth:    1 element\n"},
               {"/tmp/bad.xml", 1,
                "/tmp/bad.xml:2:11: this does not close <b> of line 2 (byte 15)\n"
                "    <b>\xC3\xA4\\t </a>\n             ^\n"},
               {"/tmp/none.xml", 2, "", "/tmp/none.xml: No such file"},
               {"", 2, "", "takes the name of a file"},
               {"--from nobody /tmp/good.xml", 2, "", "there is no encoding nobody"},
               {"--pretty /tmp/good.xml", 2, "", "do not fit check"}});
    EXPECT_TRUE(Shows("xml check --json /tmp/good.xml /tmp/bad.xml", 1,
                      {"\"encodingFrom\":\"declaration\"", "\"line\":2,\"column\":11"}));
}

TEST(KemdctlXml, ConvertsDocuments) {
    WriteFile("/tmp/a.xml", "<a><!--c--><b>\xC3\xA9</b></a>");
    ExpectAll("xml convert /tmp/a.xml ",
              {{"--to us-ascii --pretty", 0,
                "<?xml version=\"1.0\" encoding=\"US-ASCII\"?>\n<a>\n  <!--c-->\n  <b>&#xE9;</b>\n"
                "</a>\n"},
               {"--canonical", 0, "<a><b>\xC3\xA9</b></a>"},
               {"--exclusive --comments", 0, "<a><!--c--><b>\xC3\xA9</b></a>"},
               {"--to 1252 --output /tmp/a.xml", 0, ""},
               {"--canonical --inclusive-prefixes p", 2, "", "is for --exclusive"},
               {"--canonical --pretty", 2, "", "exclude each other"},
               {"--to nobody", 2, "", "there is no encoding nobody"},
               {"--output /none/b.xml", 2, "", "cannot write /none/b.xml"}});
    WriteFile("/tmp/p.xml", "<a xmlns:p='urn:p' xmlns:q='urn:q'/>");
    EXPECT_TRUE(Shows("xml convert /tmp/p.xml --exclusive --inclusive-prefixes 'q r'", 0,
                      {"<a xmlns:q=\"urn:q\"></a>"}));
    EXPECT_TRUE(
        Contains(ReadFile("/tmp/a.xml"), "encoding=\"windows-1252\"?>\n<a><!--c--><b>\xE9"));
}

}  // namespace
