#ifndef ATSC3_ESG_EXTENSION_H
#define ATSC3_ESG_EXTENSION_H

#include <json/forwards.h>

#include <cstdint>
#include <string>
#include <vector>

#include "ESGExport.h"

/// The private extensions that an ATSC 3.0 broadcast adds to its guide, in two families.
///
/// Each record is a plain value: a copy holds the whole tree beneath it and shares nothing. Strings
/// are bytes as they came, normally UTF-8; nothing interprets them. One thread at a time may write
/// a record or use a JSON value.
///
/// Every record has the same two conversions, which always return true:
///
/// - `ToJson` sets the record's members on `target` and keeps its other members; a null value
///   becomes an object. An empty list writes nothing. An existing list gets the new elements after
///   its own.
/// - `FromJson` reads `source` into the record. Absent or null members read as empty or 0. It
///   appends to lists and does not replace them: read into a new record to replace one. Looking up
///   an absent list or nested record adds it to `source` as null.
///
/// A member that cannot be converted raises the JSON library's exception. The members read before
/// it stay in the record.
namespace ATSC3ESGExtension {

// The content extension: what a programme carries in FCESGProgramInfo::PrivateExt().

/// One icon, or one content item of a preview. The three numbers are uninitialised until FromJson
/// or the caller sets them.
class ESG_API CESGIcon {
 public:
  CESGIcon();
  CESGIcon(const CESGIcon&) = default;
  CESGIcon(CESGIcon&&) = default;
  CESGIcon& operator=(const CESGIcon&) = default;
  CESGIcon& operator=(CESGIcon&&) = default;
  virtual ~CESGIcon();

  /// The conversions that every record has; see ATSC3ESGExtension.
  static bool ToJson(const CESGIcon& record, Json::Value& target);
  static bool FromJson(Json::Value& source, CESGIcon& record);

  std::string uri;        ///< where it is
  std::string mimeType;   ///< its media type
  std::int32_t width;     ///< pixels
  std::int32_t height;    ///< pixels
  std::int32_t dataSize;  ///< bytes
};

/// One text and its language.
class ESG_API CESGDescription {
 public:
  CESGDescription();
  CESGDescription(const CESGDescription&) = default;
  CESGDescription(CESGDescription&&) = default;
  CESGDescription& operator=(const CESGDescription&) = default;
  CESGDescription& operator=(CESGDescription&&) = default;
  virtual ~CESGDescription();

  /// The conversions that every record has; see ATSC3ESGExtension.
  static bool ToJson(const CESGDescription& record, Json::Value& target);
  static bool FromJson(Json::Value& source, CESGDescription& record);

  std::string text;  ///< the text to show
  std::string lang;  ///< its language
};

/// One preview: its icons, its content items (which have the form of an icon) and its descriptions.
class ESG_API CESGPreview {
 public:
  CESGPreview();
  CESGPreview(const CESGPreview&) = default;
  CESGPreview(CESGPreview&&) = default;
  CESGPreview& operator=(const CESGPreview&) = default;
  CESGPreview& operator=(CESGPreview&&) = default;
  virtual ~CESGPreview();

  /// The conversions that every record has; see ATSC3ESGExtension.
  static bool ToJson(const CESGPreview& record, Json::Value& target);
  static bool FromJson(Json::Value& source, CESGPreview& record);

  std::string usage;                          ///< the purpose of the preview
  std::vector<CESGIcon> icons;                ///< pictures that represent it
  std::vector<CESGIcon> contents;             ///< the content to play or show
  std::vector<CESGDescription> descriptions;  ///< texts, in several languages
};

/// The private extension of one programme.
class ESG_API CESGPrivateExt {
 public:
  CESGPrivateExt();
  CESGPrivateExt(const CESGPrivateExt&) = default;
  CESGPrivateExt(CESGPrivateExt&&) = default;
  CESGPrivateExt& operator=(const CESGPrivateExt&) = default;
  CESGPrivateExt& operator=(CESGPrivateExt&&) = default;
  virtual ~CESGPrivateExt();

  /// The conversions that every record has; see ATSC3ESGExtension.
  static bool ToJson(const CESGPrivateExt& record, Json::Value& target);
  static bool FromJson(Json::Value& source, CESGPrivateExt& record);

  std::vector<CESGIcon> contentIcons;  ///< pictures of the programme
  std::vector<CESGPreview> previews;   ///< previews of the programme
};

// The service extension, for applications to build and convert. Its JSON names differ on purpose.

/// A link. `uriType` is uninitialised until FromJson or the caller sets it. Reading keeps the low 8
/// bits of the number.
class ESG_API Link {
 public:
  Link();
  Link(const Link&) = default;
  Link(Link&&) = default;
  Link& operator=(const Link&) = default;
  Link& operator=(Link&&) = default;
  virtual ~Link();

  /// The conversions that every record has; see ATSC3ESGExtension.
  static bool ToJson(const Link& record, Json::Value& target);
  static bool FromJson(Json::Value& source, Link& record);

  std::string uri;          ///< where it leads
  std::uint8_t uriType;     ///< the kind of `uri`, as broadcast
  std::string description;  ///< what it leads to
};

/// An icon with a link; its size is text.
class ESG_API Icon {
 public:
  Icon();
  Icon(const Icon&) = default;
  Icon(Icon&&) = default;
  Icon& operator=(const Icon&) = default;
  Icon& operator=(Icon&&) = default;
  virtual ~Icon();

  /// The conversions that every record has; see ATSC3ESGExtension.
  static bool ToJson(const Icon& record, Json::Value& target);
  static bool FromJson(Json::Value& source, Icon& record);

  std::string uri;       ///< where it is
  std::string MIMEType;  ///< its media type
  std::string size;      ///< as broadcast
  Link link;             ///< what it leads to
};

/// A text with its language and a link.
class ESG_API PreviewDescription {
 public:
  PreviewDescription();
  PreviewDescription(const PreviewDescription&) = default;
  PreviewDescription(PreviewDescription&&) = default;
  PreviewDescription& operator=(const PreviewDescription&) = default;
  PreviewDescription& operator=(PreviewDescription&&) = default;
  virtual ~PreviewDescription();

  /// The conversions that every record has; see ATSC3ESGExtension.
  static bool ToJson(const PreviewDescription& record, Json::Value& target);
  static bool FromJson(Json::Value& source, PreviewDescription& record);

  std::string previewDesc;  ///< the text
  std::string lang;         ///< its language
  Link link;                ///< what it leads to
};

/// A description and an icon.
class ESG_API PreviewData {
 public:
  PreviewData();
  PreviewData(const PreviewData&) = default;
  PreviewData(PreviewData&&) = default;
  PreviewData& operator=(const PreviewData&) = default;
  PreviewData& operator=(PreviewData&&) = default;
  virtual ~PreviewData();

  /// The conversions that every record has; see ATSC3ESGExtension.
  static bool ToJson(const PreviewData& record, Json::Value& target);
  static bool FromJson(Json::Value& source, PreviewData& record);

  PreviewDescription preview_description;  ///< the text
  Icon icon;                               ///< the picture
};

/// The root of the service extension.
class ESG_API PrivateExt {
 public:
  PrivateExt();
  PrivateExt(const PrivateExt&) = default;
  PrivateExt(PrivateExt&&) = default;
  PrivateExt& operator=(const PrivateExt&) = default;
  PrivateExt& operator=(PrivateExt&&) = default;
  virtual ~PrivateExt();

  /// The conversions that every record has; see ATSC3ESGExtension.
  static bool ToJson(const PrivateExt& record, Json::Value& target);
  static bool FromJson(Json::Value& source, PrivateExt& record);

  std::vector<Icon> content_icon;         ///< pictures of the service
  std::vector<PreviewData> preview_data;  ///< previews of the service
};

}  // namespace ATSC3ESGExtension

#endif
