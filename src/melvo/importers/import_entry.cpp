#include "melvo/importers/import_entry.h"

#include "melvo/interchange/tempo_notices.h"
#include "melvo/model/project_file.h"
#include "melvo/platform/atomic_file.h"
#include "melvo/platform/i18n.h"
#include "melvo/platform/text.h"

namespace melvo {

const std::vector<std::string>& openableExtensions() {
  static const std::vector<std::string> extensions{"nsproj"};
  return extensions;
}

MusicDocument openDocument(const std::filesystem::path& path) {
  std::string ext = text::asciiLower(path.extension().string());
  if (!ext.empty() && ext[0] == '.') ext.erase(0, 1);
  MusicDocument document;
  try {
    if (ext == "nsproj") {
      document = readProject(path);
    } else {
      throw OpenError(trf("この種類のファイルは開けません: %@", {path.string()}));
    }
  } catch (const FileError& e) {
    throw OpenError(trf("ファイルを読めません: %@", {e.what()}));
  } catch (const ProjectDecodeError& e) {
    throw OpenError(trf("%@ を開けません: %@", {path.string(), e.what()}));
  }
  // Every opened song goes through the same passes as an import. Tempo notices are not
  // saved, so a reopened project finds them anew.
  addTempoInsideNoteNotices(document);
  sealNotices(document);
  return document;
}

}  // namespace melvo
