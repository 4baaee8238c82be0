#ifndef SRC_RECORD_MEMBERS_H
#define SRC_RECORD_MEMBERS_H

#include "ATSC3ESGExtension.h"
#include "FCESGProgramInfo.h"
#include "JsonMembers.h"

/// The members of every record with their names in JSON, in the order of conversion. The names,
/// with their mixed spellings, and the orders are a contract with the service.

struct FCESGProgramInfoMembers {
  template <class Converter, class Record>
  static void Each(Converter& json, Record& program) {
    json.AddedScalar("Start", program.m_startTime);
    json.AddedScalar("eventID", program.m_eventId);
    json.AddedScalar("title", program.m_title);
    json.AddedScalar("synopsis", program.m_synopsis);
    json.AddedScalar("genre", program.m_genre);
    json.AddedScalar("duration", program.m_duration);
    json.Replaced("privateExt", program.m_privateExt);
    json.Scalar("globalServiceId", program.m_globalServiceId);
  }
};

namespace esg::json {

template <>
struct Members<FCESGProgramInfo> : FCESGProgramInfoMembers {};

template <>
struct Members<ATSC3ESGExtension::CESGIcon> {
  template <class Converter, class Record>
  static void Each(Converter& json, Record& icon) {
    json.Scalar("uri", icon.uri);
    json.Scalar("mimeType", icon.mimeType);
    json.Scalar("width", icon.width);
    json.Scalar("height", icon.height);
    json.Scalar("dataSize", icon.dataSize);
  }
};

template <>
struct Members<ATSC3ESGExtension::CESGDescription> {
  template <class Converter, class Record>
  static void Each(Converter& json, Record& description) {
    json.Scalar("text", description.text);
    json.Scalar("lang", description.lang);
  }
};

template <>
struct Members<ATSC3ESGExtension::CESGPreview> {
  template <class Converter, class Record>
  static void Each(Converter& json, Record& preview) {
    json.Scalar("usage", preview.usage);
    json.List("icons", preview.icons);
    json.List("contents", preview.contents);
    json.List("descriptions", preview.descriptions);
  }
};

template <>
struct Members<ATSC3ESGExtension::CESGPrivateExt> {
  template <class Converter, class Record>
  static void Each(Converter& json, Record& extension) {
    json.List("contentIcons", extension.contentIcons);
    json.List("previews", extension.previews);
  }
};

template <>
struct Members<ATSC3ESGExtension::Link> {
  template <class Converter, class Record>
  static void Each(Converter& json, Record& link) {
    json.Scalar("uri", link.uri);
    json.Scalar("uriType", link.uriType);
    json.Scalar("description", link.description);
  }
};

template <>
struct Members<ATSC3ESGExtension::Icon> {
  template <class Converter, class Record>
  static void Each(Converter& json, Record& icon) {
    json.Scalar("uri", icon.uri);
    json.Scalar("MIMEType", icon.MIMEType);
    json.Scalar("size", icon.size);
    json.Nested("link", icon.link);
  }
};

template <>
struct Members<ATSC3ESGExtension::PreviewDescription> {
  template <class Converter, class Record>
  static void Each(Converter& json, Record& description) {
    json.Scalar("previewDesc", description.previewDesc);
    json.Scalar("lang", description.lang);
    json.Nested("link", description.link);
  }
};

template <>
struct Members<ATSC3ESGExtension::PreviewData> {
  template <class Converter, class Record>
  static void Each(Converter& json, Record& data) {
    json.Nested("preview_description", data.preview_description);
    json.Nested("icon", data.icon);
  }
};

template <>
struct Members<ATSC3ESGExtension::PrivateExt> {
  template <class Converter, class Record>
  static void Each(Converter& json, Record& extension) {
    // In reverse order of the fields.
    json.List("preview_data", extension.preview_data);
    json.List("content_icon", extension.content_icon);
  }
};

}  // namespace esg::json

#endif
