// libxml2 pieces shared by the extended configuration's reader and writer.
#ifndef GUESTPREP_LIB_TOOLSVERSION_XML_H
#define GUESTPREP_LIB_TOOLSVERSION_XML_H

#include <libxml/parser.h>
#include <libxml/tree.h>

#include <memory>

#include "platform/dictionary/dictionary.h"
#include "platform/util/str.h"

// The documents come from outside the library (the virtual machine's file,
// the guest's report): no network, no DTD, no entity substitution, nothing
// printed. Blank text and comments are kept so that what this code does not
// own is written back as it was.
constexpr int kToolsVersionXmlOptions = XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING;

struct XmlDocDeleter {
  void operator()(xmlDoc *doc) const { xmlFreeDoc(doc); }
};
using XmlDoc = std::unique_ptr<xmlDoc, XmlDocDeleter>;
struct XmlTextDeleter {
  void operator()(xmlChar *text) const { xmlFree(text); }
};
using XmlText = std::unique_ptr<xmlChar, XmlTextDeleter>;

// The extended configuration file of the virtual machine parsed, with a
// root element; its path goes to *path when path is not null. Null after
// the failing step's log line.
XmlDoc ToolsVersionParseExtConfig(const char *configPath, Dictionary *configDict,
                                  gp::UniqueText *path);

#endif
