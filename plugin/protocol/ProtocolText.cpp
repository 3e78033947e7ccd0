#include "protocol/ProtocolText.h"

#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <vector>

#include "util/StringUtils.h"

namespace HttpWrapper {

using PROTOCOL_FILTER::IProtocolAttr;
using PROTOCOL_FILTER::IProtocolHead;

namespace {

const char kHeaderTerminator[] = "\r\n\r\n";
const int kHeaderTerminatorLength = 4;
const int kAllCuts = -1;  // Split's "as many as the default limit allows"

// "a=1;b" gives the attributes a (1) and b (empty). A plain value gets no
// attributes at all; names and values are not trimmed, so in "a=1; b=2" the
// blank stays in front of the second name.
void AddAttributes(IProtocolHead* head, const std::string& value)
{
    std::vector<std::string> pieces;
    const int count = Split(value, ";", pieces, kAllCuts);
    for (const std::string& piece : pieces) {
        std::vector<std::string> pair;
        if (Split(piece, "=", pair, 1) == 2) {
            head->InsertAttrLast(pair[0].c_str(), pair[1].c_str());
        } else if (count > 1) {
            head->InsertAttrLast(piece.c_str(), "");
        }
    }
}

void AddHeadLine(CProtocolCommon& common, const std::string& line)
{
    std::vector<std::string> pair;
    if (Split(line, ":", pair, 1) != 2) {
        return;  // not a header line
    }
    std::string value = pair[1];
    RemoveSpace(value);
    // The name is kept as written, blanks included.
    IProtocolHead* head = common.InsertHeadLast(pair[0].c_str(), value.c_str());
    if (head != nullptr) {
        AddAttributes(head, value);
    }
}

}  // namespace

bool ParseMessageText(const char* text, int length, CProtocolCommon& common, std::string& firstLine)
{
    if (text == nullptr) {
        return false;
    }
    const char* terminator = std::strstr(text, kHeaderTerminator);
    if (terminator == nullptr) {
        return false;
    }
    const long long headerBytes = static_cast<long long>(terminator - text) + kHeaderTerminatorLength;
    if (length > headerBytes) {
        common.GetProtocolBody()->SetBodyContent(terminator + kHeaderTerminatorLength,
                                                 static_cast<int>(length - headerBytes));
    }
    // The default cut limit applies: a block of more than 65 lines keeps the
    // surplus, line breaks included, in its last piece, which then reads as
    // one header line. The filter chain has always seen it that way (Q16).
    std::vector<std::string> lines;
    Split(std::string(text, terminator), "\r\n", lines, kAllCuts);
    firstLine = lines[0];
    for (std::size_t i = 1; i < lines.size(); ++i) {
        AddHeadLine(common, lines[i]);
    }
    return true;
}

CMessageTextWriter::CMessageTextWriter(char* buffer, int size)
    : m_pBuffer(buffer), m_llSize(buffer == nullptr || size < 0 ? 0 : size), m_llPosition(0)
{
}

void CMessageTextWriter::Format(const char* format, ...)
{
    const long long room = m_llPosition < m_llSize ? m_llSize - m_llPosition : 0;
    va_list args;
    va_start(args, format);
    const int length =
        std::vsnprintf(room > 0 ? m_pBuffer + m_llPosition : nullptr, static_cast<std::size_t>(room), format, args);
    va_end(args);
    if (length > 0) {
        m_llPosition += length;
    }
}

void CMessageTextWriter::WriteHead(IProtocolHead* head)
{
    if (head->HasHeadValue()) {
        // A head with a value is written as it stands; its attributes are not.
        Format("%s: %s\r\n", head->GetHeadName(), head->GetHeadValue());
        return;
    }
    Format("%s: ", head->GetHeadName());
    for (IProtocolAttr* attr = head->GetFirstAttr(); attr != nullptr; attr = head->GetNextAttr()) {
        if (attr->HasAttrValue()) {
            Format("%s=%s;", attr->GetAttrName(), attr->GetAttrValue());
        } else {
            Format("%s;", attr->GetAttrName());
        }
    }
    // One step back overwrites the last ";" or, without attributes, the blank
    // behind the colon: "X: a=1;b" and "X:" are the intended lines (Q16).
    --m_llPosition;
    Format("\r\n");
}

int CMessageTextWriter::FinishMessage(CProtocolCommon& common)
{
    for (IProtocolHead* head = common.GetFirstHead(); head != nullptr; head = common.GetNextHead()) {
        WriteHead(head);
    }
    Format("\r\n");

    char* content = nullptr;
    const int contentLength = common.GetProtocolBody()->GetBodyContent(&content);
    if (contentLength > 0 && content != nullptr && m_llPosition + contentLength <= m_llSize) {
        std::memcpy(m_pBuffer + m_llPosition, content, static_cast<std::size_t>(contentLength));
    }
    // The body counts even when it did not fit: callers compare the result
    // with their buffer size to find out.
    const long long total = m_llPosition + (contentLength > 0 ? contentLength : 0);
    return total > INT_MAX ? INT_MAX : static_cast<int>(total);
}

}  // namespace HttpWrapper
