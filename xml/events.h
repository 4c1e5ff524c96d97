// What expat calls while a document is read.
#pragma once

#include "xml/run.h"

struct XmlEvents {
    static void Register(XmlRun& run, XML_Parser parser);

  private:
    struct Handlers;
};
