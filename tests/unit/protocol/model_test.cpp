#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "protocol/ProtocolFilter.h"

using namespace HttpWrapper;
using PROTOCOL_FILTER::IProtocolAttr;

namespace {

std::string AttrNames(CProtocolHead& head)
{
    std::string names;
    for (IProtocolAttr* attr = head.GetFirstAttr(); attr != nullptr; attr = head.GetNextAttr()) {
        names += attr->GetAttrName();
    }
    return names;
}

}  // namespace

TEST(AttrValues, RangesAndTheCutOfLongNumbers)
{
    // Not a range leaves the outputs alone; a range is cut at its first "-" only.
    const struct {
        const char* value;
        int min, max;
    } ranges[] = {{"10-20", 10, 20}, {"10", -1, -1}, {"-5-7", 0, 5}, {"1-2-3", 1, 2}};
    CProtocolAttr attr("a", "");
    for (const auto& range : ranges) {
        int min = -1;
        int max = -1;
        attr.SetAttrValue(range.value);
        attr.GetAttrIntRange(&min, &max);
        EXPECT_EQ(std::make_pair(min, max), std::make_pair(range.min, range.max)) << range.value;
    }
    double low = 0;
    double high = 0;
    attr.SetAttrValue("0.5-1.25");
    attr.GetAttrFloatRange(&low, &high);
    EXPECT_EQ(std::make_pair(low, high), std::make_pair(0.5, 1.25));
    attr.SetAttrFloatValue(1e300);  // cut to the 64-byte buffer
    EXPECT_EQ(std::string(attr.GetAttrValue()).size(), 63u);
}

TEST(AttrList, DuplicatesIndexErasureAndTheCursor)
{
    CProtocolHead head("Transport", "");
    IProtocolAttr* first = head.InsertAttrLast("a", "1");
    IProtocolAttr* second = head.InsertAttrLast("a", "2");
    EXPECT_EQ(AttrNames(head), "aa");
    EXPECT_EQ(head.GetAttrByName("a"), second);

    // Removing the older duplicate also hides the newer one from lookups.
    head.DeleteAttr(first);
    EXPECT_EQ(head.GetAttrByName("a"), nullptr);
    EXPECT_EQ(head.GetFirstAttr(), second);
    EXPECT_EQ(head.GetNextAttr(), nullptr);

    head.InsertAttrLast("B", "x");
    EXPECT_EQ(head.GetAttrByName("b"), nullptr);  // names are case-sensitive
    EXPECT_EQ(head.GetAttrByName(nullptr), nullptr);

    // A renamed attribute leaves no index entry behind when it goes.
    IProtocolAttr* renamed = head.InsertAttrLast("old", "");
    renamed->SetAttrName("new");
    EXPECT_EQ(head.GetAttrByName("old"), renamed);
    head.DeleteAttr(renamed);
    EXPECT_EQ(head.GetAttrByName("old"), nullptr);

    // Removing the element under the cursor ends the iteration.
    EXPECT_EQ(head.GetFirstAttr(), second);
    head.DeleteAttr(second);
    EXPECT_EQ(head.GetNextAttr(), nullptr);
    EXPECT_EQ(AttrNames(head), "B");
}

TEST(AttrList, PositionalInsertAndDelete)
{
    CProtocolHead head("H", "");
    EXPECT_EQ(head.GetNextAttr(), nullptr);  // the cursor starts at the end
    head.DeleteAttrFirst();
    head.DeleteAttrLast();

    IProtocolAttr* b = head.InsertAttrLast("b", "");
    head.InsertAttrFirst("a", "");
    IProtocolAttr* d = head.InsertAttrAfter("d", "", b);
    head.InsertAttrBefore("c", "", d);
    IProtocolAttr* e = head.InsertAttrLast("e", "");
    EXPECT_EQ(AttrNames(head), "abcde");

    // References outside the list, and the ends of it, change nothing.
    CProtocolHead other("O", "");
    IProtocolAttr* foreign = other.InsertAttrLast("f", "");
    EXPECT_EQ(head.InsertAttrAfter("x", "", foreign), nullptr);
    EXPECT_EQ(head.InsertAttrBefore("x", "", nullptr), nullptr);
    head.DeleteAttrAfter(foreign);
    head.DeleteAttrBefore(head.GetFirstAttr());
    head.DeleteAttrAfter(e);
    EXPECT_EQ(AttrNames(head), "abcde");

    head.DeleteAttrAfter(b);   // c
    head.DeleteAttrBefore(b);  // a
    head.DeleteAttrFirst();    // b
    head.DeleteAttrLast();     // e
    EXPECT_EQ(AttrNames(head), "d");
    EXPECT_EQ(head.GetAttrByName("c"), nullptr);
    EXPECT_EQ(head.GetAttrByName("d"), d);
}

TEST(Body, OwnsATerminatedCopy)
{
    CProtocolBody body;
    char* content = reinterpret_cast<char*>(1);
    EXPECT_EQ(body.GetBodyContent(&content), 0);
    EXPECT_EQ(content, nullptr);

    body.SetBodyContent("", 0);
    EXPECT_EQ(body.GetBodyContent(&content), 0);
    EXPECT_STREQ(content, "");  // set, though empty: not null

    std::string data("a\0b", 3);
    body.SetBodyContent(data.data(), 3);
    data[0] = 'z';
    ASSERT_EQ(body.GetBodyContent(&content), 3);
    EXPECT_EQ(std::string(content, 4), std::string("a\0b\0", 4));

    body.SetBodyContent(nullptr, 5);
    EXPECT_EQ(body.GetBodyContent(&content), 0);
    EXPECT_EQ(content, nullptr);
}
