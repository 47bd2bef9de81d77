#pragma once

#include <any>

#include "platform/types.h"

namespace platform {

// Message types a node's data receives. Plug-ins define their own above 1000000 (their
// plug-in IDs).
enum MessageType : Int32 {
  MSG_UPDATE = 5,                         // the node changed; caches and bounds are stale
  MSG_DESCRIPTION_COMMAND = 20,           // a button was pressed; `parameter` names it
  MSG_DESCRIPTION_CHECKUPDATE = 21,       // a user edit changed `parameter`
  MSG_DESCRIPTION_POSTSETPARAMETER = 22,  // after a user edit stored `parameter`
  MSG_DESCRIPTION_VALIDATE = 23,          // bring the parameters back into their limits
  MSG_DOCUMENTINFO = 24,                  // the document was loaded, saved, ...; `info` says what
  // A scene file gave the node its values; `payload` holds the std::vector<ParameterId> of
  // those it gave, so a node can tell a value from the file from its default.
  MSG_DESCRIPTION_READ = 25,
};

// MSG_DOCUMENTINFO kinds.
enum DocumentInfoType : Int32 {
  DOCUMENTINFO_LOADED = 1001,  // the document has just been loaded from a file
};

struct MessageData {
  Int32 parameter = 0;
  Int32 info = 0;
  // Messages of plug-ins carry their own data, typically a pointer to a request struct.
  std::any payload;
};

}  // namespace platform
