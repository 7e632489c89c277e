#ifndef ESD_XPLAT_EXPATDOMBUILDER_H
#define ESD_XPLAT_EXPATDOMBUILDER_H

#include <expat.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <exception>
#include <ios>
#include <memory>
#include <stack>
#include <string>
#include <type_traits>
#include <vector>

#include "xplat/ESDAssert.h"
#include "xplat/ESDIOFileStream.h"
#include "xplat/XMLDocumentNode.h"

namespace esd {

// Builds a tree of NodeType from an XML file with the Expat parser. The builder owns the tree:
// users read, change and write its document node but never delete it.
//
// What the tree keeps is decided by the handlers: an element's text is the character data
// between its start tag and the next tag (white space included), and text that follows a
// child's end tag is dropped. The declaration's version is kept; the declared encoding is not:
// the parser hands over UTF-8 and every document is written back declaring "UTF-8".
template <class NodeType>
class ExpatDOMBuilder {
 public:
  ExpatDOMBuilder() : m_bCollectText(false), m_pExpatParser(nullptr), m_bHandlerFailed(false) {}
  virtual ~ExpatDOMBuilder() { Clear(); }

  ExpatDOMBuilder(const ExpatDOMBuilder&) = delete;
  ExpatDOMBuilder& operator=(const ExpatDOMBuilder&) = delete;

  // Discards any earlier tree and parser and prepares a fresh document node (version "1.0",
  // encoding "UTF-8") and parser. encoding null takes the encoding from the document;
  // namespaceSeparator null turns namespace processing off. False when no parser could be made.
  bool Create(const char* encoding, const char* namespaceSeparator) {
    Clear();
    m_pExpatParser = XML_ParserCreate_MM(encoding, nullptr, namespaceSeparator);
    if (!m_pExpatParser) return false;
    XML_SetUserData(m_pExpatParser, this);
    m_pDocumentNode.reset(new NodeType());
    m_pDocumentNode->SetAttributeData("version", "1.0");
    m_pDocumentNode->SetAttributeData("encoding", "UTF-8");
    m_NodeHistory.push(m_pDocumentNode.get());
    XML_SetStartElementHandler(m_pExpatParser, &ExpatDOMBuilder::StartElementHandler);
    XML_SetEndElementHandler(m_pExpatParser, &ExpatDOMBuilder::EndElementHandler);
    XML_SetCharacterDataHandler(m_pExpatParser, &ExpatDOMBuilder::CharacterDataHandler);
    XML_SetXmlDeclHandler(m_pExpatParser, &ExpatDOMBuilder::XmlDeclHandler);
    return true;
  }

  // Parses the whole file into the tree made by Create. A file that cannot be opened or is
  // empty is not parsed and gives resultIfEmpty (the caller decides whether "nothing there"
  // counts as parsed). Otherwise true exactly when the whole file is well-formed XML; after a
  // failure the tree holds what was built up to the error and is fit only to be discarded.
  bool ParseFile(const std::string& path, bool resultIfEmpty) {
    ESDifstream file(path, "rb", std::ios::in | std::ios::binary);
    std::ifstream& in = file.GetStream();
    if (!in.is_open()) return resultIfEmpty;
    if (!in.seekg(0, std::ios::end)) return resultIfEmpty;
    const std::streamoff length = in.tellg();
    if (length <= 0) return resultIfEmpty;
    if (!in.seekg(0, std::ios::beg)) return false;

    // A file of ordinary size goes to the parser as one final buffer. Between buffers the
    // parser walks every byte it was given to keep its line count for error messages, which
    // costs a large store's load a tenth of its time; the buffer costs the file's size in memory
    // for as long as the parse lasts. Larger files (or a file that grew since it was measured)
    // are read in chunks.
    const std::streamoff kWholeFileLimit = 16 * 1024 * 1024;
    const int kChunk = static_cast<int>(length <= kWholeFileLimit ? length : 64 * 1024);
    bool parsed = true;
    while (in.good() && parsed) {
      char* buffer = static_cast<char*>(GetBuffer(kChunk));
      if (!buffer) {
        parsed = false;
        break;
      }
      in.read(buffer, kChunk);
      const int got = static_cast<int>(in.gcount());
      // The read that reaches the end of the file is the final one; so is a full read with
      // nothing after it, which spares the whole-file case a second parser call.
      const bool last = in.fail() || in.peek() == std::char_traits<char>::eof();
      parsed = ParseBuffer(got, last);
      if (last) break;
    }
    in.close();
    return parsed;
  }

  // True when `size` bytes held in memory form a well-formed document (zero bytes do not). No
  // tree is built, so checking text before it is written costs a fraction of a load.
  static bool IsWellFormed(const char* data, std::size_t size) {
    struct Free {
      void operator()(XML_ParserStruct* parser) const { XML_ParserFree(parser); }
    };
    std::unique_ptr<XML_ParserStruct, Free> parser(XML_ParserCreate_MM(nullptr, nullptr, nullptr));
    if (!parser) return false;
    // One final buffer where the text is of ordinary size, for the reason ParseFile gives.
    const std::size_t kWholeLimit = 16 * 1024 * 1024;
    const std::size_t kChunk = size == 0 ? 1 : size <= kWholeLimit ? size : 64 * 1024;
    std::size_t done = 0;
    do {
      const std::size_t count = std::min(kChunk, size - done);
      void* buffer = XML_GetBuffer(parser.get(), static_cast<int>(kChunk));
      if (!buffer) return false;
      if (count) std::memcpy(buffer, data + done, count);
      done += count;
      const XML_Status status = XML_ParseBuffer(parser.get(), static_cast<int>(count),
                                                done == size ? XML_TRUE : XML_FALSE);
      if (status != XML_STATUS_OK) return false;
    } while (done < size);
    return true;
  }

  // A parser buffer of len bytes to read the next chunk into, or null when the parser cannot
  // provide one. Needs Create.
  void* GetBuffer(int len) {
    ESD_ASSERT(m_pExpatParser != NULL);
    return XML_GetBuffer(m_pExpatParser, len);
  }

  // Parses len bytes placed in the buffer of GetBuffer; isFinal marks the last chunk. True when
  // the document is well-formed so far (and complete, for the final chunk).
  bool ParseBuffer(int len, bool isFinal) {
    ESD_ASSERT(m_pExpatParser != NULL);
    const XML_Status status = XML_ParseBuffer(m_pExpatParser, len, isFinal ? XML_TRUE : XML_FALSE);
    (void)XML_GetErrorCode(m_pExpatParser);
    return status == XML_STATUS_OK && !m_bHandlerFailed;
  }

  // Frees the parser and the tree.
  void Clear() {
    if (m_pExpatParser) {
      XML_ParserFree(m_pExpatParser);
      m_pExpatParser = nullptr;
    }
    while (!m_NodeHistory.empty()) m_NodeHistory.pop();
    m_pDocumentNode.reset();
    m_bCollectText = false;
    m_bHandlerFailed = false;
  }

  // The document node of the last Create, or null after Clear. Owned by the builder.
  NodeType* GetDocumentNode() const { return m_pDocumentNode.get(); }

 private:
  // Nodes of exactly XMLDocumentNode take the parser's texts through its non-virtual setters;
  // other node types get the virtual ones they may override.
  static constexpr bool kPlainNodes = std::is_same<NodeType, XMLDocumentNode>::value;

  // The handlers run inside the C parser, which no exception may cross. An exception (only
  // memory exhaustion can raise one) marks the parse as failed and silences later events.
  static ExpatDOMBuilder* Self(void* pThisParser) {
    ESD_ASSERT(pThisParser);
    return static_cast<ExpatDOMBuilder*>(pThisParser);
  }

  static void XMLCALL StartElementHandler(void* pThisParser, const XML_Char* name,
                                          const XML_Char** atts) {
    ExpatDOMBuilder* pThis = Self(pThisParser);
    if (pThis->m_bHandlerFailed) return;
    try {
      ESD_ASSERT(pThis->m_NodeHistory.size());
      pThis->m_bCollectText = true;
      std::unique_ptr<NodeType> node;
      if constexpr (kPlainNodes) {
        node.reset(new NodeType(name, std::strlen(name)));
      } else {
        // The scratch strings keep their capacity from one call to the next, so passing the
        // parser's texts on as strings costs no allocation of its own.
        pThis->m_ScratchName.assign(name);
        node.reset(new NodeType(pThis->m_ScratchName));
      }
      NodeType* pNode = node.get();
      pThis->m_NodeHistory.top()->AddChildNode(pNode);
      node.release();
      pThis->m_NodeHistory.push(pNode);
      for (const XML_Char** attr = atts; attr && attr[0] && attr[1]; attr += 2) {
        if constexpr (kPlainNodes) {
          pNode->AddAttribute(attr[0], attr[1]);
        } else {
          pThis->m_ScratchName.assign(attr[0]);
          pThis->m_ScratchText.assign(attr[1]);
          pNode->SetAttributeData(pThis->m_ScratchName, pThis->m_ScratchText);
        }
      }
    } catch (const std::exception&) {
      pThis->m_bHandlerFailed = true;
    }
  }

  static void XMLCALL EndElementHandler(void* pThisParser, const XML_Char*) {
    ExpatDOMBuilder* pThis = Self(pThisParser);
    if (pThis->m_bHandlerFailed) return;
    pThis->m_bCollectText = false;
    // The document node stays at the bottom; the parser never ends more elements than it began.
    if (pThis->m_NodeHistory.size() > 1) pThis->m_NodeHistory.pop();
  }

  static void XMLCALL CharacterDataHandler(void* pThisParser, const XML_Char* s, int len) {
    ExpatDOMBuilder* pThis = Self(pThisParser);
    if (pThis->m_bHandlerFailed || !pThis->m_bCollectText) return;
    try {
      NodeType* pNode = pThis->m_NodeHistory.top();
      ESD_ASSERT(pNode);
      if constexpr (kPlainNodes) {
        pNode->AppendText(s, static_cast<std::size_t>(len));
      } else {
        pThis->m_ScratchText.assign(s, static_cast<std::size_t>(len));
        pNode->AppendElementData(pThis->m_ScratchText);
      }
    } catch (const std::exception&) {
      pThis->m_bHandlerFailed = true;
    }
  }

  static void XMLCALL XmlDeclHandler(void* pThisParser, const XML_Char* version,
                                     const XML_Char*, int) {
    ExpatDOMBuilder* pThis = Self(pThisParser);
    if (pThis->m_bHandlerFailed || !version) return;
    try {
      pThis->m_pDocumentNode->SetAttributeData("version", version);
      pThis->m_pDocumentNode->SetAttributeData("encoding", "UTF-8");
    } catch (const std::exception&) {
      pThis->m_bHandlerFailed = true;
    }
  }

  std::unique_ptr<NodeType> m_pDocumentNode;
  std::stack<NodeType*, std::vector<NodeType*>> m_NodeHistory;
  bool m_bCollectText;
  XML_Parser m_pExpatParser;
  bool m_bHandlerFailed;
  std::string m_ScratchName;
  std::string m_ScratchText;
};

}  // namespace esd

#endif
