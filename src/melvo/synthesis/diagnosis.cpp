#include "melvo/synthesis/diagnosis.h"

#include <string_view>

#include "melvo/platform/i18n.h"

namespace melvo {
namespace {

bool contains(std::string_view s, std::string_view what) {
  return s.find(what) != std::string_view::npos;
}

bool isDigit(char c) {
  return c >= '0' && c <= '9';
}

std::string_view trimBlanks(std::string_view s) {
  const auto first = s.find_first_not_of(" \t\r");
  if (first == std::string_view::npos) return {};
  return s.substr(first, s.find_last_not_of(" \t\r") - first + 1);
}

// The version in the leftmost "gcc/lib/gcc/<digits>/libgcc_s". One fixed shape is not worth a
// compiled pattern. The search steps by one byte because a failed candidate such as
// "gcc/lib/gcc/lib/gcc/12/..." may hide a match inside itself.
std::optional<std::string> gccVersion(std::string_view log) {
  constexpr std::string_view head = "gcc/lib/gcc/";
  constexpr std::string_view tail = "/libgcc_s";
  for (auto at = log.find(head); at != std::string_view::npos; at = log.find(head, at + 1)) {
    const std::size_t start = at + head.size();
    std::size_t end = start;
    while (end < log.size() && isDigit(log[end])) ++end;
    if (end > start && log.substr(end, tail.size()) == tail)
      return std::string(log.substr(start, end - start));
  }
  return std::nullopt;
}

// The library that glibc's loader names in "prog: error while loading shared libraries:
// libx.so.1: cannot open shared object file: ...", or that a dlopen() error names in
// "libx.so.1: cannot open shared object file: ...". Empty when the log names none.
std::string missingLibrary(std::string_view log) {
  constexpr std::string_view loading = "error while loading shared libraries:";
  if (auto at = log.find(loading); at != std::string_view::npos) {
    std::string_view rest = log.substr(at + loading.size());
    return std::string(trimBlanks(rest.substr(0, rest.find_first_of(":\n"))));
  }
  constexpr std::string_view cannotOpen = ": cannot open shared object file";
  if (auto at = log.find(cannotOpen); at != std::string_view::npos && at > 0) {
    // Whatever precedes the name on its line ("OSError: ", a program name) ends at a blank.
    const auto blank = log.find_last_of(" \t\n", at - 1);
    const std::size_t start = blank == std::string_view::npos ? 0 : blank + 1;
    return std::string(log.substr(start, at - start));
  }
  return {};
}

Diagnosis gccRuntime(const std::string& version, std::string_view log) {
  // Apple-silicon Homebrew lives in /opt/homebrew; if the log mentions it, the user has that
  // one, otherwise the Intel layout under /usr/local is the better guess.
  const std::string_view brewPrefix =
      contains(log, "/opt/homebrew/") ? "/opt/homebrew" : "/usr/local";
  std::string link = tr("新しい GCC が入っている場合は、シンボリックリンクを作成：\n");
  link += "ln -s ";
  link += brewPrefix;
  link += "/lib/gcc/current/libgcc_s.1.1.dylib /opt/gcc/lib/gcc/" + version + "/libgcc_s.1.1.dylib";
  return {trf("GCC %@ ランタイムが不足しています", {version}),
          trf("NEUTRINO のバイナリが GCC %@ の libgcc_s.1.1.dylib "
              "を要求していますが、ご利用の Mac にはインストールされていません。"
              "以下のいずれかで解決できます：",
              {version}),
          {trf("Homebrew で GCC %@ を入れる：\nbrew install gcc@%@", {version, version}),
           std::move(link),
           tr("NEUTRINO 本体を最新版に更新する（同梱バイナリが新しい GCC "
              "で再ビルドされている可能性）")}};
}

Diagnosis sharedLibrary(const std::string& library) {
  return {library.empty() ? tr("共有ライブラリが見つかりません")
                          : trf("共有ライブラリ %@ が見つかりません", {library}),
          tr("NEUTRINO のバイナリが必要とする共有ライブラリが、このシステムにはインストールされ"
             "ていません。以下のいずれかで解決できます："),
          {tr("システムのパッケージマネージャ（apt・dnf など）で、このライブラリを含むパッケージを"
              "入れる"),
           // The generated script puts bin/ on LD_LIBRARY_PATH, so a library that shipped with
           // the engine is only missing if bin/ was copied incompletely.
           tr("NEUTRINOフォルダの bin/ に、NEUTRINO 同梱のライブラリ（.so "
              "ファイル）がそろっているか確認")}};
}

// The folder as a shell argument in a command the user copies.
std::string folderArgument(const std::string& folder) {
  if (folder.empty()) return tr("<NEUTRINOフォルダ>");
  if (folder.find_first_of(" '\"$`\\!*?[]{}()<>|&;#~") == std::string::npos) return folder;
  std::string quoted = "'";
  for (char c : folder) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

}  // namespace

std::optional<Diagnosis> diagnose(const std::vector<std::string>& lines,
                                  const std::string& engineFolder) {
  std::string log;
  for (std::size_t i = 0; i < lines.size(); ++i) {
    if (i > 0) log += '\n';
    log += lines[i];
  }

  // A loader failure comes first: its text also says "No such file or directory", and the
  // cure is a library, not the folder setting.
  if (contains(log, "Library not loaded"))
    if (auto version = gccVersion(log)) return gccRuntime(*version, log);
  if (contains(log, "error while loading shared libraries") ||
      contains(log, "cannot open shared object file"))
    return sharedLibrary(missingLibrary(log));

  if (contains(log, "No such file or directory") || contains(log, "command not found"))
    return Diagnosis{tr("NEUTRINO の実行ファイルが見つかりません"),
                     tr("NEUTRINOフォルダ（設定の「NEUTRINO フォルダ」）に bin/ "
                        "ディレクトリと、neutrino・musicXMLtoLabel の実行ファイルが必要です。"),
                     // The other OS's settings shortcut and paths do not exist here; the
                     // command line names its own commands.
                     {tr("NEUTRINOフォルダの中身を確かめる：\nmelvo engine status"),
                      trf("bin/ 内のファイルが存在し、実行権限があるか確認（直すには：melvo "
                          "engine fix %@）",
                          {folderArgument(engineFolder)})}};

  if (contains(log, "model") && contains(log, "not exist"))
    return Diagnosis{tr("モデルディレクトリが見つかりません"),
                     tr("選択中のキャラクターのモデルファイルが存在しません。"),
                     {tr("トラックの札の「声を選ぶ」で、利用可能な声を選択"),
                      tr("model/ ディレクトリ配下にキャラクターのフォルダがあるか確認")}};

  if (contains(log, "Permission denied") || contains(log, "permission denied"))
    return Diagnosis{
        tr("実行権限がありません"),
        tr("NEUTRINO 実行ファイルに実行権限が付与されていません。"),
        {trf("実行権限を付ける：\nmelvo engine fix %@", {folderArgument(engineFolder)}),
         tr("NEUTRINOフォルダが実行を許さないドライブ（noexec で mount された "
            "USB メモリなど）にある場合は、ホームフォルダへ移す")}};

  return std::nullopt;
}

}  // namespace melvo
