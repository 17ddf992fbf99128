#include "cephfs/plugin.h"

#include "cephfs/file_system.h"
#include "filesystem/error_text.h"

extern "C" int kestOpenCephFs2(const std::string &device, void (*say)(std::string text),
                               std::unique_ptr<kest::FileSystem> *fs) {
  kest::forwardErrorText(say);
  return kest::openCephFs(device, fs);
}
