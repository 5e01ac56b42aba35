// The application's error reports: fire and forget.
#include <cstdarg>

#include "c_handles.h"
#include "daxo_internal.h"
#include "string_utils.h"

namespace daxo {

DAXO_Error ReportError(DAXO_Client* client, const char* codeMember, int error,
                       const char* errMessage, const char* levels, ...) noexcept {
  DAXO_Error err;
  JsonPtr body = NewObject(&err);
  if (!body) return err;
  if ((err = AddMember(body.get(), codeMember, json_object_new_int(error))) != DAXO_Error_Success ||
      (err = AddMember(body.get(), "errorMessage", json_object_new_string(errMessage))) !=
          DAXO_Error_Success)
    return err;
  va_list args;
  va_start(args, levels);
  err = RequestV(client, body.get(), levels, args);
  va_end(args);
  return err;
}

}  // namespace daxo
