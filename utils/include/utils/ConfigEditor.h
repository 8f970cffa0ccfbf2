// zq::utils::CConfigEditor: a line-preserving editor of `key = value` files.
//
// Every physical line of a file is kept in order, so a file can be written back unchanged
// except for the edited values. Lines that carry a key are indexed; notes ('#' to the end of
// the line), blank lines and lines of any other shape are kept as they are. Values are wide
// strings, converted from and to the file's narrow code page (65001 UTF-8, 936 GBK or 0, the
// C locale's character set) through the platform layer.
//
// Storage forms
//   text    lines separated by line feeds; a carriage return before a line feed is not part
//           of the line. Lines are taken whole at any length (there is no 1023-byte line
//           limit): nothing of a long line is dropped. A line is taken up to its first NUL
//           byte; the rest of that line is dropped. Saving writes the line ends the file
//           was loaded with: CR LF when every line feed had a carriage return before it,
//           else line feeds (a line that ends in a carriage return gets CR LF, so that it
//           reads back unchanged). New files get line feeds.
//   binary  int32 record count N, then N records: int32 L (line bytes + 1), 0xBE, the line's
//           bytes each inverted, 0x00, 0xED (all integers little-endian). A record with wrong
//           marks is skipped. A count or a length that the rest of the file cannot hold makes
//           the load fail, so that a damaged file is never rewritten shortened.
//
// Limits: files of more than kMaxFileBytes bytes or kMaxLines lines are refused by load.
//
// Failures are results (false, empty, zero); nothing throws out of the editor. An editor that
// holds a file rewrites it when it is destroyed (a forced save), read-only or not.
//
// Not thread-safe: one editor and its file are used from one thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace zq {
namespace utils {

// Code pages understood by the conversions.
constexpr int32_t kCodePageUtf8 = 65001;
constexpr int32_t kCodePageGb2312 = 936;
constexpr int32_t kCodePageAnsi = 0;

// Version text shown in the header note block.
constexpr const wchar_t* kConfigEditorVersion = L"3.2.0.6";

// Largest file load accepts, and most lines it takes from one file.
constexpr std::size_t kMaxFileBytes = 16u * 1024u * 1024u;
constexpr std::size_t kMaxLines = 1u << 20;

// One physical line. `text` is what is written back; the other three come from the line
// analysis (notes removed, then `^(\w+)([:, =]+)(.+)$`) and are empty when it finds no key.
struct tagConfigFileLine {
    std::wstring text;
    std::wstring key;
    std::wstring separator;
    std::wstring value;

    tagConfigFileLine() = default;
    // Stores `line` as `text` and analyses it.
    explicit tagConfigFileLine(const std::wstring& line);

    bool operator==(const tagConfigFileLine& other) const {
        return text == other.text && key == other.key && separator == other.separator &&
               value == other.value;
    }
    bool operator!=(const tagConfigFileLine& other) const { return !(*this == other); }
};

// A loaded file. keyIndex maps each key to the position in `lines` of the last line carrying
// it, in plain (case-sensitive) wide-character order.
struct tagConfigFile {
    std::wstring fileName;
    bool readOnly = true;
    bool binary = false;
    bool modified = false;
    int32_t codePage = kCodePageUtf8;
    std::vector<tagConfigFileLine> lines;
    std::map<std::wstring, int32_t> keyIndex;
    // Text form: the file was loaded with CR LF line ends (every line feed had a carriage
    // return before it), so a save writes CR LF again. False for new files and LF files.
    bool crlfLineEnds = false;
};

// Time stamps (local time, "YYYY\x04MM\x14DD\x08, hh:mm:ss") and size of a file.
struct FileAttribute {
    std::wstring createTime;  // status change time on POSIX
    std::wstring modifyTime;
    std::wstring accessTime;
    int32_t size = 0;  // clamped to INT32_MAX
};

class CConfigEditor {
public:
    // Starts empty; a non-empty path is loaded at once (state() tells whether it worked).
    explicit CConfigEditor(const std::wstring& path = std::wstring(), bool binary = false,
                           bool readOnly = true);
    // Starts empty, then copy-assigns: the copy rewrites the source's file at once.
    CConfigEditor(const CConfigEditor& other);
    CConfigEditor(CConfigEditor&& other) noexcept;
    // Deep copy of the other's file that keeps this editor's file name (the other's when this
    // one held none) and is saved with force at once. Copying an empty editor empties this
    // one without saving; assigning an editor to itself does nothing.
    CConfigEditor& operator=(const CConfigEditor& other);
    CConfigEditor& operator=(CConfigEditor&& other) noexcept;
    // Saves with force, then releases the file.
    ~CConfigEditor();

    // Replaces whatever was held and reads `path`. With readOnly false the file is created
    // exclusively first, so an existing file makes the load fail. Decoding is always UTF-8
    // (a code page set before does not survive a load). False leaves the editor empty.
    bool load(const std::wstring& path, bool binary = false, bool readOnly = true);
    // True exactly when the editor holds no file.
    bool state() const;
    // Set the storage form or code page of the held file for later conversions and saves;
    // false when no file is held.
    bool setBinary(bool binary);
    bool setCodePage(int codePage);

    // Conversions with the held file's code page (65001 without a file). The input is taken
    // up to its first NUL; invalid bytes or characters are replaced, never thrown.
    const std::string toString(const std::wstring& text) const;
    const std::wstring toWString(const std::string& text) const;

    // Typed reading of the last line carrying `key`. Absent key or no file: false, 0, empty.
    // Numbers are read like atoi/atof in the "C" locale; integers saturate at the int32
    // range, floats beyond the float range become infinite.
    bool getBoolean(const std::string& key) const;  // "true" or "1", whole and exact
    int32_t getInteger(const std::string& key) const;
    double getDouble(const std::string& key) const;
    float getFloat(const std::string& key) const;
    std::string getString(const std::string& key) const;
    std::string getString(const std::wstring& key) const;
    std::wstring getWString(const std::string& key) const;
    std::wstring getWString(const std::wstring& key) const;

    // List reading: the value split into tokens (names and numbers, see LineGrammar.h);
    // anything between tokens is passed over.
    std::vector<bool> getVecBoolean(const std::string& key) const;
    std::vector<int32_t> getVecInteger(const std::string& key) const;
    std::vector<double> getVecDouble(const std::string& key) const;
    std::vector<float> getVecFloat(const std::string& key) const;
    std::vector<std::string> getVecString(const std::string& key) const;
    std::vector<std::string> getVecString(const std::wstring& key) const;
    std::vector<std::wstring> getVecWString(const std::string& key) const;
    std::vector<std::wstring> getVecWString(const std::wstring& key) const;

    bool contains(const std::string& key) const;
    bool contains(const std::wstring& key) const;
    // False (value untouched) without a file or without any key. Otherwise true when `key`
    // is present; `value`, when given, receives its value or the empty string.
    bool findKey(const std::wstring& key, std::wstring* value = nullptr) const;
    // Every key once, ascending; false (keys untouched) without a file, keys or `keys`.
    bool getAllKeys(std::vector<std::wstring>* keys) const;

    // Replace the value of `key`, keeping the key, the separator as written and the note.
    // An absent key fails unless `add`, which appends the line key + " = " + value with an
    // empty separator field: modifying that key again before a reload writes key and value
    // back to back. Every success sets `modified`.
    bool modifyw(const std::wstring& key, const std::wstring& value, const bool& add = false);
    bool modify(const std::string& key, const std::string& value, const bool& add = false);
    bool modifyb(const std::string& key, bool value, const bool& add = false);  // true/false
    bool modifyi(const std::string& key, int32_t value, const bool& add = false);
    bool modifyd(const std::string& key, double value, const bool& add = false);  // "%f"
    bool modifyf(const std::string& key, float value, const bool& add = false);   // "%f"

    // Adds the note n * indent + "# " + note to the line of `key`. `format`: optional decimal
    // indent count n, optional 's' (spaces, default) or 't' (tabs), optional 'u' (own line
    // above the key's line, default) or 'r' (end of the key's line); reading stops at any
    // other character. Does not set `modified`.
    bool addNote(const std::string& key, const std::string& note, const char* format = "");
    bool addNote(const std::string& key, const std::wstring& note, const char* format = "");
    bool addNote(const std::wstring& key, const std::string& note, const char* format = "");
    bool addNote(const std::wstring& key, const std::wstring& note, const char* format = "");

    // Writes the held file in its storage form and code page. Without `force` a read-only or
    // unmodified file is not written (false). `modified` is left as it is.
    bool save(bool force = false);
    // Saves with force when `save` is true, then releases the file.
    void close(const bool& save);

    // The held file, or nullptr when empty. Valid until the editor loads, closes or dies.
    const tagConfigFile* getConfigFile() const { return m_pConfigFile.get(); }

private:
    const std::wstring* findValue(const std::wstring& key) const;

    std::shared_ptr<tagConfigFile> m_pConfigFile;
};

// Status of `path`; false (attribute untouched) when it cannot be read.
bool getFileAttribute(const std::wstring& path, FileAttribute& attribute);

// Six note lines, each ended by a line feed: "# File Name: ", "# File Ext: ", "# Code Page: ",
// "# Version: ", "# Create Time: ", "# Modify Time: ". A code page outside 0, 936 and 65001
// is shown as its number.
std::wstring getConfigEditTitle(const tagConfigFile& file);

// Every byte inverted (bitwise NOT); applying it twice gives the input back.
std::string encryption(const std::string& text);

// The module-wide editor of the device module's debug switches, constructed empty on first
// use and destroyed (with its forced save) at process end.
CConfigEditor& debugConfig();

// File name of the debug switches in the annex folder, and the key the device reads.
constexpr const wchar_t* kDebugConfigFileName = L"Debug.dbg";
constexpr const char* kSaveScanFrameKey = "SaveScanFrame";

}  // namespace utils
}  // namespace zq
