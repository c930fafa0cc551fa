#include "UpdateTimeline.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "../../src/flash/FlashState.h"
#include "../../src/update/UpdateProgress.h"

const TimelineCall *UpdateTimeline::PowerCut() const {
  for (const TimelineCall &Call : Calls) {
    if (Call.PowerLost) {
      return &Call;
    }
  }
  return nullptr;
}

TimelineRecorder::TimelineRecorder(EmuPlatform &Platform) : Platform_(Platform), PortLogSeen_(Platform.PortLogCount) {}

std::string TimelineRecorder::RegionOf(uint64_t ImageOffset) const {
  if ((Platform_.Config->Flags & kPlatformConfigAlternativeFlag) != 0) {
    return NamedRegion_;  // blocks count progress units there, not image offsets
  }
  const EmuLayout &Layout = Platform_.Layout;
  if (ImageOffset < Layout.EcSize) {
    return "EC";
  }
  const uint64_t Address = Platform_.FlashBaseAddress + ImageOffset - Layout.EcSize;
  const UpdateRegion *Best = nullptr;
  UINT32 BestIndex = 0;
  for (UINT32 Index = 0; Index < kUpdateRegionCount; Index++) {
    const UpdateRegion &Region = mUpdateRegionTable[Index];
    if (Region.Size != 0 && Address >= Region.Address && Address - Region.Address < Region.Size &&
        (Best == nullptr || Region.Size < Best->Size)) {
      Best = &Region;
      BestIndex = Index;
    }
  }
  return Best == nullptr ? std::string() : std::string(reinterpret_cast<const char *>(UpdateRegionName(BestIndex)));
}

bool TimelineRecorder::Record(const ServiceCall &Call) {
  const EmuFlashChip::Counters &Stats = Platform_.Flash.Stats();
  const EmuFlashChip::Timing &Time = Platform_.Flash.Time();
  TimelineCall Entry;
  Entry.Service = Call.Service;
  Entry.Block = Call.Block;
  Entry.ImageOffset = Call.ImageOffset;
  Entry.Status = Call.Status;
  Entry.Begin = Time_.Total();
  Entry.End = Time.Total();
  Entry.EraseNanoseconds = Time.EraseNanoseconds - Time_.EraseNanoseconds;
  Entry.ProgramNanoseconds = Time.ProgramNanoseconds - Time_.ProgramNanoseconds;
  Entry.ReadNanoseconds = Time.ReadNanoseconds - Time_.ReadNanoseconds;
  Entry.SectorErases = Stats.SectorErases - Stats_.SectorErases;
  Entry.Programs = Stats.Programs - Stats_.Programs;
  Entry.BytesProgrammed = Stats.BytesProgrammed - Stats_.BytesProgrammed;
  Entry.PowerLost = Platform_.Flash.PowerLost() && Timeline_.PowerCut() == nullptr;
  Stats_ = Stats;
  Time_ = Time;

  const UINTN PortLogCount = std::min(Platform_.PortLogCount, EmuPlatform::kPortLogCapacity);
  for (; PortLogSeen_ < PortLogCount; PortLogSeen_++) {
    const EmuPortAccess &Access = Platform_.PortLog[PortLogSeen_];
    if (Access.Write && Access.Port == 0x80) {
      Timeline_.DebugCodes.push_back({Entry.End, Access.Value, {}});
    }
  }
  const EmuUpdateLog &Log = Platform_.UpdateLogStore;
  for (; LogRecordsSeen_ < std::min(Log.Count, EmuUpdateLog::kCapacity); LogRecordsSeen_++) {
    const EmuUpdateLogRecord &Record = Log.Records[LogRecordsSeen_];
    const size_t Length = std::min<uint64_t>(Record.Length, EmuUpdateLogRecord::kDataCapacity);
    if (Record.Type == EmuUpdateLog::kTypeProgressCode && Length == sizeof(UINT32)) {
      UINT32 Code = 0;
      std::memcpy(&Code, Record.Data, sizeof(Code));
      Timeline_.ProgressCodes.push_back({Entry.End, Code, {}});
    } else if (Record.Type == kUpdateLogRecordRegionName) {
      NamedRegion_.assign(reinterpret_cast<const char *>(Record.Data), Length);
      if (!Timeline_.ProgressCodes.empty() && Timeline_.ProgressCodes.back().Name.empty()) {
        Timeline_.ProgressCodes.back().Name = NamedRegion_;
      }
    }
  }
  if (Entry.Service == "BiosWriteImage") {
    Entry.Region = RegionOf(Call.ImageOffset);
  }
  Timeline_.Calls.push_back(std::move(Entry));
  return !Platform_.Flash.PowerLost();
}

// ---- Drawing ----------------------------------------------------------------------------

namespace {

constexpr double kWidth = 1000, kLeft = 110, kRight = 20, kLaneHeight = 26, kTop = 46;
constexpr double kPlotWidth = kWidth - kLeft - kRight;

struct Span {
  uint64_t Begin, End;
  std::string Label;
};

class SvgCanvas {
public:
  explicit SvgCanvas(uint64_t Duration) : Duration_(std::max<uint64_t>(Duration, 1)) {}
  double X(uint64_t Nanoseconds) const { return kLeft + kPlotWidth * static_cast<double>(Nanoseconds) / Duration_; }
  // Spans of one lane; neighbours closer than half a pixel merge when they carry the same label.
  void Lane(int Row, const char *Name, std::vector<Span> Spans, const char *Color) {
    const double Y = kTop + Row * kLaneHeight;
    Text(8, Y + 16, Name, "start", "#333");
    Line(kLeft, Y + kLaneHeight - 2, kWidth - kRight, Y + kLaneHeight - 2, "#ddd");
    std::vector<Span> Merged;
    const uint64_t HalfPixel = static_cast<uint64_t>(Duration_ / kPlotWidth / 2);
    for (Span &Piece : Spans) {
      if (!Merged.empty() && Merged.back().Label == Piece.Label && Piece.Begin <= Merged.back().End + HalfPixel) {
        Merged.back().End = std::max(Merged.back().End, Piece.End);
      } else {
        Merged.push_back(std::move(Piece));
      }
    }
    for (const Span &Piece : Merged) {
      const double Left = X(Piece.Begin), Width = std::max(X(Piece.End) - Left, 0.6);
      const std::string Fill = Color != nullptr ? Color : RegionColor(Piece.Label);
      Append("<rect x=\"%.1f\" y=\"%.1f\" width=\"%.1f\" height=\"%.1f\" fill=\"%s\"><title>%s %.3f-%.3f s</title></rect>\n",
             Left, Y + 4, Width, kLaneHeight - 8, Fill.c_str(), Piece.Label.c_str(), Piece.Begin / 1e9, Piece.End / 1e9);
      if (!Piece.Label.empty() && Width > 7.0 * Piece.Label.size()) {
        Text(Left + Width / 2, Y + 17, Piece.Label, "middle", "#fff");
      }
    }
  }
  // Codes as ticks under a row of labels; a label that would overlap its neighbour moves right
  // on one of two lines and a slanted leader joins it to its tick.
  void Codes(int Row, const char *Name, const std::vector<TimelineCode> &Codes, const char *Color) {
    const double Y = kTop + Row * kLaneHeight;
    Text(8, Y + 16, Name, "start", "#333");
    double LineEnd[2] = {0, 0};
    for (size_t Index = 0; Index < Codes.size(); Index++) {
      char Label[48];
      std::snprintf(Label, sizeof(Label), "%s%s0x%" PRIX32, Codes[Index].Name.c_str(),
                    Codes[Index].Name.empty() ? "" : " ", Codes[Index].Code);
      const double Width = 6.2 * static_cast<double>(std::strlen(Label));
      const double At = X(Codes[Index].At);
      const int LabelLine = LineEnd[0] <= LineEnd[1] ? 0 : 1;
      double LabelX = std::max(At, LineEnd[LabelLine] + 6);
      LabelX = std::min(LabelX, kWidth - 2 - Width);
      LineEnd[LabelLine] = LabelX + Width;
      const double LabelY = Y + 12 + 13 * LabelLine;
      Line(At, Y + 3 * kLaneHeight - 4, At, Y + 34, Color);
      Line(At, Y + 34, LabelX + 2, LabelY + 2, Color);
      Text(LabelX, LabelY, Label, "start", Color);
    }
  }
  void Axis(int Row) {
    const double Y = kTop + Row * kLaneHeight;
    Line(kLeft, Y, kWidth - kRight, Y, "#333");
    const double Seconds = Duration_ / 1e9;
    double Step = 1e-3;
    for (const double Candidate : {1e-3, 2e-3, 5e-3, 1e-2, 2e-2, 5e-2, 0.1, 0.2, 0.5, 1.0, 2.0, 5.0, 10.0, 20.0, 50.0, 100.0}) {
      Step = Candidate;
      if (Seconds / Candidate <= 10) {
        break;
      }
    }
    for (double Tick = 0; Tick <= Seconds + Step / 1000; Tick += Step) {
      const double At = X(static_cast<uint64_t>(Tick * 1e9));
      Line(At, Y, At, Y + 5, "#333");
      char Label[24];
      std::snprintf(Label, sizeof(Label), "%g s", Tick);
      Text(At, Y + 17, Label, "middle", "#333");
    }
  }
  void Marker(uint64_t At, int Rows, const std::string &Label, const char *Color) {
    const double Left = X(At);
    Line(Left, kTop - 4, Left, kTop + Rows * kLaneHeight, Color, 2);
    Text(Left - 3, kTop - 8, Label, "end", Color);
  }
  void Text(double X, double Y, const std::string &Content, const char *Anchor, const char *Color) {
    std::string Escaped;
    for (const char Character : Content) {
      Escaped += Character == '<' ? "&lt;" : Character == '>' ? "&gt;" : Character == '&' ? "&amp;" : std::string(1, Character);
    }
    Append("<text x=\"%.1f\" y=\"%.1f\" text-anchor=\"%s\" fill=\"%s\">%s</text>\n", X, Y, Anchor, Color, Escaped.c_str());
  }
  void Line(double X1, double Y1, double X2, double Y2, const char *Color, double Width = 1) {
    Append("<line x1=\"%.1f\" y1=\"%.1f\" x2=\"%.1f\" y2=\"%.1f\" stroke=\"%s\" stroke-width=\"%g\"/>\n", X1, Y1, X2, Y2, Color, Width);
  }
  template <typename... Arguments> void Append(const char *Format, Arguments... Values) {
    const int Length = std::snprintf(nullptr, 0, Format, Values...);
    std::string Piece(static_cast<size_t>(Length), '\0');
    std::snprintf(Piece.data(), Piece.size() + 1, Format, Values...);
    Body += Piece;
  }
  // Regions take the palette's colours in the order they first appear.
  std::string RegionColor(const std::string &Name) {
    static constexpr const char *kPalette[] = {"#1f77b4", "#ff7f0e", "#2ca02c", "#d62728", "#9467bd",
                                               "#8c564b", "#e377c2", "#7f7f7f", "#bcbd22", "#17becf", "#393b79"};
    const auto Found = std::find(RegionsSeen_.begin(), RegionsSeen_.end(), Name);
    const size_t Index = static_cast<size_t>(Found - RegionsSeen_.begin());
    if (Found == RegionsSeen_.end()) {
      RegionsSeen_.push_back(Name);
    }
    return kPalette[Index % std::size(kPalette)];
  }
  std::string Body;

private:
  double Duration_;
  std::vector<std::string> RegionsSeen_;
};

std::string ServiceLabel(const std::string &Service) {
  static constexpr const char *kLabels[][2] = {{"Start", "start"},          {"BiosQueryImage", "query"},
                                               {"BiosVerifySignature", "verify"}, {"BiosWriteImage", "write"},
                                               {"BiosReadImage", "read"},   {"SetFlashCompletionStatus", "completion"}};
  for (const auto &Label : kLabels) {
    if (Service == Label[0]) {
      return Label[1];
    }
  }
  return Service;
}

}  // namespace

std::string TimelineSvg(const UpdateTimeline &Timeline) {
  SvgCanvas Canvas(Timeline.Duration());
  std::vector<Span> Services, Regions, Erases, Programs, Reads;
  for (const TimelineCall &Call : Timeline.Calls) {
    const bool Write = Call.Service == "BiosWriteImage";
    Services.push_back({Call.Begin, Call.End, ServiceLabel(Call.Service)});
    if (Write && !Call.Region.empty()) {
      Regions.push_back({Call.Begin, Call.End, Call.Region});
    }
    // Within a call the chip's erases come before its programs and reads on this picture.
    const uint64_t Programmed = Call.Begin + Call.EraseNanoseconds;
    const uint64_t ReadFrom = Programmed + Call.ProgramNanoseconds;
    if (Call.EraseNanoseconds != 0) {
      Erases.push_back({Call.Begin, Programmed, ""});
    }
    if (Call.ProgramNanoseconds != 0) {
      Programs.push_back({Programmed, ReadFrom, ""});
    }
    if (Call.ReadNanoseconds != 0) {
      Reads.push_back({ReadFrom, ReadFrom + Call.ReadNanoseconds, ""});
    }
  }
  Canvas.Lane(0, "service", Services, "#555");
  Canvas.Lane(1, "region", Regions, nullptr);
  Canvas.Lane(2, "erase", Erases, "#d62728");
  Canvas.Lane(3, "program", Programs, "#2ca02c");
  Canvas.Lane(4, "read", Reads, "#1f77b4");
  Canvas.Codes(5, "port 0x80", Timeline.DebugCodes, "#9467bd");
  Canvas.Codes(8, "progress", Timeline.ProgressCodes, "#8c564b");
  Canvas.Axis(11);
  if (const TimelineCall *Cut = Timeline.PowerCut()) {
    Canvas.Marker(Cut->End, 11, "power cut", "#e00");
  }
  const double Height = kTop + 11 * kLaneHeight + 30;
  std::string Svg;
  char Header[400];
  std::snprintf(Header, sizeof(Header),
                "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"%.0f\" height=\"%.0f\" viewBox=\"0 0 %.0f %.0f\" "
                "font-family=\"sans-serif\" font-size=\"11\">\n<rect width=\"100%%\" height=\"100%%\" fill=\"#fff\"/>\n"
                "<text x=\"8\" y=\"18\" font-size=\"13\" font-weight=\"bold\">bios-update: %.3f s of flash time "
                "(the chip's timing model)</text>\n",
                kWidth, Height, kWidth, Height, Timeline.Duration() / 1e9);
  Svg = Header;
  Svg += Canvas.Body;
  Svg += "</svg>\n";
  return Svg;
}
