#ifndef FC_ESG_PROGRAM_INFO_H
#define FC_ESG_PROGRAM_INFO_H

#include <json/forwards.h>

#include <string>

#include "ATSC3ESGExtension.h"
#include "ESGExport.h"

/// One programme of the guide: a scheduled event of a broadcast service.
///
/// A plain value: a copy shares nothing with its source. Strings are bytes as the service sends
/// them, normally UTF-8. One thread at a time may write a record; concurrent reads are safe.
class ESG_API FCESGProgramInfo {
 public:
  FCESGProgramInfo() = default;
  FCESGProgramInfo(const FCESGProgramInfo&) = default;
  FCESGProgramInfo(FCESGProgramInfo&&) = default;
  FCESGProgramInfo& operator=(const FCESGProgramInfo&) = default;
  FCESGProgramInfo& operator=(FCESGProgramInfo&&) = default;
  virtual ~FCESGProgramInfo();

  /// Start, in the service's clock: NTP seconds for a broadcast guide.
  void SetStartTime(unsigned int startTime);
  unsigned int GetStartTime() const;

  /// Length in seconds.
  void SetDuration(unsigned int duration);
  unsigned int Duration() const;

  /// The event's id; esg-guide-service puts the content id here.
  void SetEventID(std::string eventId);
  const std::string& GetEventID() const;

  /// The title to show.
  void SetTitle(const std::string& title);
  const std::string& Title() const;

  /// What the programme is about.
  void SetSynopsis(const std::string& synopsis);
  const std::string& Synopsis() const;

  /// The genre, as text.
  void SetGenre(const std::string& genre);
  const std::string& Genre() const;

  /// The id of the broadcast service and the private extension; only FromJson() sets them.
  const std::string& GlobalServiceID() const;
  const ATSC3ESGExtension::CESGPrivateExt& PrivateExt() const;

  /// Writes the record's eight members into `target` and keeps its other members; a null value
  /// becomes an object. Returns true. Raises the JSON library's exception if `target` is neither
  /// null nor an object.
  static bool ToJson(const FCESGProgramInfo& program, Json::Value& target);

  /// Replaces every field of `program` from `source`; absent members read as 0 or empty. Returns
  /// true.
  ///
  /// Looking up an absent member adds it to `source` as null, except "globalServiceId". Raises the
  /// JSON library's exception at the first member that cannot be converted; the fields before it
  /// have then been replaced.
  static bool FromJson(Json::Value& source, FCESGProgramInfo& program);

 private:
  friend struct FCESGProgramInfoMembers;

  unsigned int m_startTime = 0;
  unsigned int m_duration = 0;
  std::string m_eventId;
  std::string m_title;
  std::string m_synopsis;
  std::string m_genre;
  std::string m_globalServiceId;
  ATSC3ESGExtension::CESGPrivateExt m_privateExt;
};

#endif
