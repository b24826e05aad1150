// CPropertyHandler: named, typed values in an XML file in the machine-wide application-data folder,
// written back after every change.
//
// Names are paths: "/" separates group names from the property's own name; empty components
// (leading, trailing, doubled "/") are ignored. The file's root is `xmlroot`; a group is an element
// `type` whose attribute `value` holds the group's name, a property an empty element `property` with
// the attributes `id`, `type` ("string", "number" or "binary") and `value`.
//
// A file that cannot be used at start-up is not an error: the store starts empty and the first
// change writes a fresh file. The unusable file stays untouched until then, and is kept beside the
// new one as "<name>.bad" when the first change is saved, so a hand-edited file that broke is never
// silently thrown away.
//
// A change is all or nothing: one that is refused part-way leaves the document, and so the file,
// exactly as it was; one that succeeds is written at once.
//
// The store takes no lock; its owners serialise every call, the save included. Failures go to the
// trace log at level 0.
#pragma once

#include <cstddef>
#include <cstdint>

#include "common/blob.h"
#include "common/heap.h"
#include "common/wide_string.h"
#include "settings/xml_document.h"

namespace orlenda {

class CPropertyHandler {
 public:
  // Binary values read back are cut to this many bytes.
  static constexpr std::size_t kMaxBinaryBytes = 4092;
  // The platform path limit for the file's full path.
  static constexpr std::size_t kMaxPath = 260;

  // The store of `file_name` in <common application data>/Morvane/Orlenda.
  explicit CPropertyHandler(const WString& file_name);
  // A store without a file, from UTF-8 bytes parsed as they are; no bytes: an empty document.
  CPropertyHandler(const uint8_t* utf8, std::size_t size);
  // A store without a file holding only an empty `xmlroot`.
  CPropertyHandler();

  CPropertyHandler(const CPropertyHandler&) = delete;
  CPropertyHandler& operator=(const CPropertyHandler&) = delete;

  bool Save();

  bool GetString(WStringView path, WString* text);
  bool GetNumber(WStringView path, uint32_t* number);
  // A value that decodes to no bytes is found but yields no buffer.
  bool GetBinary(WStringView path, BlobRef* buffer);

  bool SetString(WStringView path, const WString& text) { return SetTyped(path, kString, View(text)); }
  bool SetString(WStringView path, const char16_t* text) {
    return SetTyped(path, kString, text ? WStringView(text) : WStringView());
  }
  bool SetNumber(WStringView path, uint32_t number);
  // No buffer stores an empty value.
  bool SetBinary(WStringView path, const Blob* buffer);

  // Appends the names of the groups directly inside the group `path` (empty: the root), in file
  // order. A missing group yields no names; the result is always true.
  bool EnumerateGroups(WStringView path, HeapVector<WString>* names);
  // Removes the property `path`, or if there is none the group `path` with everything in it.
  bool Delete(WStringView path);
  // "<xmlroot>" + every property directly inside the group + "</xmlroot>".
  bool ExportGroup(WStringView path, WString* xml);
  // Replaces the group's content by the content of `xml`'s root element, creating missing groups;
  // an empty path replaces the whole document.
  bool ReplaceGroup(WStringView path, WStringView xml);
  // Merges the properties of `xml` (the file's format) into the group its "ConfigurationPath"
  // property names.
  bool ImportProperties(WStringView xml);

  // On a text in the file's format: the value of the first `property` with this id directly inside
  // the root; and the same element removed, `xml` receiving the new text.
  static bool FindPropertyInText(WStringView xml, WStringView id, WString* value);
  static bool RemovePropertyFromText(WString* xml, WStringView id);

  // Merges the document `second` into `first` (which receives the result): the first document wins
  // every conflict; the second adds elements, attributes and content. Always true.
  static bool MergeDocuments(WString* first, WStringView second);
  // Finds in `first`, at its current level, the element named `name` whose `key` attribute equals
  // that of `second`'s main element, and adds the attributes only `second` has.
  static bool Match(WStringView name, WStringView key, XmlDocument* first, XmlDocument* second);

  const WString& file_path() const { return path_; }
  const XmlDocument& document() const { return document_; }

 private:
  static constexpr char16_t kString[] = u"string";
  static constexpr char16_t kNumber[] = u"number";
  static constexpr char16_t kBinary[] = u"binary";

  void Locate(const WString& file_name);
  void Load();
  void StartEmpty();
  // Runs `edit` on the document and saves. When the edit fails, the document is put back exactly
  // as it was, so a refused request leaves nothing behind for a later save to write out. (A failed
  // save keeps the change in memory.)
  template <class Edit>
  bool Change(Edit edit);
  bool GetTyped(WStringView path, WStringView type, WString* value);
  bool SetTyped(WStringView path, WStringView type, WStringView value);
  // Moves the cursor to the level inside the root element.
  bool EnterRoot();
  // Walks (and with `create` makes) the groups named by `components`, leaving the cursor inside
  // the last one.
  bool WalkGroups(const HeapVector<WString>& components, std::size_t count, bool create);

  XmlDocument document_;
  WString path_;
  // The file existed but could not be used; it is kept as "<name>.bad" at the first save.
  bool keep_unusable_file_ = false;
};

}  // namespace orlenda
