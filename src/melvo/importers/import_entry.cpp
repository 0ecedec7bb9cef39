#include "melvo/importers/import_entry.h"

#include "melvo/importers/ust_parser.h"
#include "melvo/importers/zip_import.h"
#include "melvo/interchange/midi_file_reader.h"
#include "melvo/interchange/musicxml_parser.h"
#include "melvo/interchange/tempo_notices.h"
#include "melvo/model/project_file.h"
#include "melvo/platform/atomic_file.h"
#include "melvo/platform/i18n.h"
#include "melvo/platform/text.h"

namespace melvo {

namespace {

std::string lowerExtension(const std::filesystem::path& path) {
  std::string ext = text::asciiLower(path.extension().string());
  if (!ext.empty() && ext[0] == '.') ext.erase(0, 1);
  return ext;
}

// The format a file of this extension holds, for readers that do not exist yet; empty for
// MusicXML, which is what any other extension is taken for.
const char* foreignFormat(const std::string& ext) {
  if (ext == "svp") return "SVP";
  if (ext == "vsqx") return "VSQX";
  if (ext == "vpr") return "VPR";
  if (ext == "ppsf") return "PPSF";
  if (ext == "tssln") return "TSSLN";
  if (ext == "ccs" || ext == "ccst") return "CCS";
  if (ext == "ustx") return "USTX";
  return "";
}

}  // namespace

UnsupportedFormatError::UnsupportedFormatError(std::string format)
    : ImportError(N_("%@ のファイルを読み込む機能は、まだありません。"),
                  trf("%@ のファイルを読み込む機能は、まだありません。", {format})),
      format_(std::move(format)) {}

const std::vector<std::string>& openableExtensions() {
  static const std::vector<std::string> extensions{
      "nsproj", "musicxml", "xml",  "mxl", "mid",  "midi",  "kar", "smf",  "rmi", "ust",
      "ustx",   "svp",      "vsqx", "vpr", "ppsf", "tssln", "ccs", "ccst", "zip"};
  return extensions;
}

MusicDocument importDocument(const std::filesystem::path& path) {
  const std::string ext = lowerExtension(path);
  if (ext == "zip") {
    // The temporary copy of the member goes away when this returns, read or not.
    const ZipImport::Extracted member = ZipImport::extract(readFile(path));
    return importDocument(member.file());
  }
  if (ext == "nsproj") return readProject(path);
  if (ext == "ust") return USTParser::parse(path);
  if (ext == "mid" || ext == "midi" || ext == "kar" || ext == "smf" || ext == "rmi")
    return MIDIFileParser::parse(path);
  if (const char* format = foreignFormat(ext); *format) throw UnsupportedFormatError(format);
  // Anything else is taken for MusicXML; the raw passes refuse what is not.
  return MusicXMLParser::parse(path);
}

MusicDocument openDocument(const std::filesystem::path& path) {
  MusicDocument document;
  try {
    document = importDocument(path);
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
