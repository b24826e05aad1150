// Benchmark of the settings store. Reports, without pass or fail:
//  - load-and-parse throughput of XmlDocument::LoadFile on a generated property file of tens of MB,
//    beside pugixml's load_file on the same file, and the ratio of the two (best of several runs);
//  - the cost of one CPropertyHandler::SetString, file write included, on a store of realistic
//    size (a few hundred properties);
//  - the parse of texts shaped to cost the most per character (stray end tags at depth, deep
//    nesting, long attribute lists, long runs of entities and of text), in time per MB beside a
//    property file of the same size, at 1 MB and at 8 MB, so that any growth faster than the
//    text's length shows as a rising figure. The shapes full of findings are measured once more
//    with their report read, which is when its phrases are formatted.
//   xml_bench [MEGABYTES]   size of the generated file, 32 MB unless given
#include <malloc.h>
#include <pugixml.hpp>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <system_error>

#include "common/wide_string.h"
#include "settings/base64.h"
#include "settings/property_handler.h"
#include "settings/xml_document.h"

namespace orlenda {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int kRuns = 5;

double Seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }

std::string Narrow(WStringView wide) {
  HeapString utf8 = WideToUtf8(wide);
  return std::string(utf8.data(), utf8.size());
}

unsigned Next(unsigned* seed) { return *seed = *seed * 1103515245u + 12345u; }

// A property file as the store writes it: root xmlroot, groups <type value="...">, properties
// <property id type value/>, CR LF line ends; about one property in ten is binary, in base64
// text with its own CR LF breaks.
std::string PropertyFile(std::size_t target_bytes, std::size_t* groups_written) {
  std::string out = "<?xml version=\"1.0\"?>\r\n<xmlroot>\r\n";
  uint8_t blob[600];
  std::size_t groups = 0;
  unsigned seed = 12345;
  while (out.size() < target_bytes) {
    char line[256];
    std::snprintf(line, sizeof(line), "  <type value=\"NAVPRT%06zu\">\r\n", groups);
    out += line;
    for (int p = 0; p < 20; ++p) {
      if (p % 10 == 9) {
        for (uint8_t& b : blob) b = static_cast<uint8_t>(Next(&seed) >> 16);
        std::snprintf(line, sizeof(line), "    <property id=\"Blob%d\" type=\"binary\" value=\"",
                      p);
        out += line;
        out += Narrow(View(EncodeBase64(blob, sizeof(blob))));
        out += "\"/>\r\n";
      } else if (p % 2 == 0) {
        std::snprintf(line, sizeof(line),
                      "    <property id=\"Number%d\" type=\"number\" value=\"%u\"/>\r\n", p,
                      Next(&seed) % 100000u);
        out += line;
      } else {
        std::snprintf(line, sizeof(line),
                      "    <property id=\"Text%d\" type=\"string\" value=\"COM%d &amp; port "
                      "&quot;%zu&quot;\"/>\r\n",
                      p, p, groups);
        out += line;
      }
    }
    out += "  </type>\r\n";
    ++groups;
  }
  out += "</xmlroot>\r\n";
  *groups_written = groups;
  return out;
}

bool WriteFile(const std::string& path, const std::string& bytes) {
  FILE* file = std::fopen(path.c_str(), "wb");
  if (file == nullptr) return false;
  bool ok = std::fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size();
  return std::fclose(file) == 0 && ok;
}

void CompareLoading(const std::string& folder, std::size_t megabytes) {
  std::size_t groups = 0;
  const std::string bytes = PropertyFile(megabytes << 20, &groups);
  const std::string path = folder + "/large.xml";
  if (!WriteFile(path, bytes)) {
    std::printf("cannot write %s\n", path.c_str());
    std::exit(1);
  }
  const double mb = static_cast<double>(bytes.size()) / (1 << 20);
  std::printf("property file: %.1f MB, %zu groups, %zu properties\n", mb, groups, groups * 20);

  const WString wide_path = Utf8ToWide(path);
  double ours = 1e30;
  for (int run = 0; run < kRuns; ++run) {
    XmlDocument doc;
    Clock::time_point start = Clock::now();
    bool loaded = doc.LoadFile(wide_path);
    ours = std::min(ours, Seconds(Clock::now() - start));
    if (!loaded || !doc.HasValidRoot()) {
      std::printf("XmlDocument::LoadFile failed: %s\n", Narrow(View(doc.GetReport())).c_str());
      std::exit(1);
    }
  }

  double theirs = 1e30;
  for (int run = 0; run < kRuns; ++run) {
    pugi::xml_document doc;
    Clock::time_point start = Clock::now();
    pugi::xml_parse_result result = doc.load_file(path.c_str());
    theirs = std::min(theirs, Seconds(Clock::now() - start));
    std::size_t found = 0;
    for (pugi::xml_node group : doc.child("xmlroot").children("type")) found += !group.empty();
    if (!result || found != groups) {
      std::printf("pugixml load_file failed: %s\n", result.description());
      std::exit(1);
    }
  }

  std::printf("load and parse, best of %d:\n", kRuns);
  std::printf("  XmlDocument::LoadFile   %8.1f MB/s  (%.3f s)\n", mb / ours, ours);
  std::printf("  pugixml load_file       %8.1f MB/s  (%.3f s)\n", mb / theirs, theirs);
  std::printf("  ratio XmlDocument / pugixml: %.2f\n", theirs / ours);
  std::remove(path.c_str());
}

// ---- adversarial shapes ------------------------------------------------------------------------

// `unit` repeated until `bytes` of text, between `head` and `tail`.
std::string Repeat(const char* head, const char* unit, const char* tail, std::size_t bytes) {
  std::string out = head;
  const std::size_t step = std::strlen(unit);
  while (out.size() + step <= bytes) out += unit;
  return out + tail;
}

// `open` repeated, then `close` as often, to `bytes` of text in all.
std::string Paired(const char* open, const char* close, std::size_t bytes) {
  const std::size_t count = bytes / (std::strlen(open) + std::strlen(close));
  std::string out;
  for (std::size_t i = 0; i < count; ++i) out += open;
  for (std::size_t i = 0; i < count; ++i) out += close;
  return out;
}

std::string AttributeList(std::size_t bytes) {
  std::string out = "<r";
  char item[32];
  for (unsigned i = 0; out.size() < bytes; ++i) {
    std::snprintf(item, sizeof item, " a%u=\"%u\"", i, i);
    out += item;
  }
  return out + "/>";
}

std::string UnmatchedEndTags(std::size_t bytes) {
  return "<r>" + Paired("<e>", "</x>", bytes) + "</r>";
}

std::string NeverClosed(std::size_t bytes) { return Repeat("", "<e>", "", bytes); }

// What a reader does with such a document beyond the parse.
enum class Reading { kNothing, kAttributes, kReport };

struct Shape {
  const char* name;
  std::string (*make)(std::size_t bytes);
  Reading reading;
};

const Shape kShapes[] = {
    {"property file (well formed)",
     [](std::size_t bytes) {
       std::size_t groups = 0;
       return PropertyFile(bytes, &groups);
     },
     Reading::kNothing},
    {"small elements (well formed)",
     [](std::size_t bytes) { return Repeat("<r>", "<e/>", "</r>", bytes); }, Reading::kNothing},
    {"unmatched end tags at depth", UnmatchedEndTags, Reading::kNothing},
    {"  the same, report read", UnmatchedEndTags, Reading::kReport},
    {"deep nesting", [](std::size_t bytes) { return Paired("<e>", "</e>", bytes); },
     Reading::kNothing},
    {"deep nesting, never closed", NeverClosed, Reading::kNothing},
    {"  the same, report read", NeverClosed, Reading::kReport},
    {"long attribute list", AttributeList, Reading::kAttributes},
    {"entities in a value",
     [](std::size_t bytes) { return Repeat("<r v=\"", "&amp;&lt;&#65;&#x42;&foo;", "\"/>", bytes); },
     Reading::kAttributes},
    {"entities in text",
     [](std::size_t bytes) { return Repeat("<r>", "&amp;&lt;&#65;&#x42;&foo;", "</r>", bytes); },
     Reading::kNothing},
    {"long text", [](std::size_t bytes) { return Repeat("<r>", "text and more ", "</r>", bytes); },
     Reading::kNothing},
};

// Best of kRuns: parse; for the attribute shapes read the first attribute, look for a missing one
// (which walks them all) and add one; for the report shapes read the report.
double TimeShape(const Shape& shape, const WString& text) {
  double best = 1e30;
  for (int run = 0; run < kRuns; ++run) {
    XmlDocument doc;
    Clock::time_point start = Clock::now();
    doc.ParseText(View(text));
    if (shape.reading == Reading::kAttributes && doc.FindSibling(u"r")) {
      const WString first = doc.AttributeNameAt(doc.main_position(), 0);
      (void)doc.GetAttribute(View(first));
      (void)doc.GetAttribute(u"missing");
      (void)doc.SetAttribute(u"added", u"1");
    } else if (shape.reading == Reading::kReport && doc.GetReport().empty()) {
      std::printf("%s: no report\n", shape.name);
      std::exit(1);
    }
    best = std::min(best, Seconds(Clock::now() - start));
  }
  return best;
}

void MeasureShapes() {
  // Blocks of tens of MB would otherwise be fresh mappings on every run, and first touches of their
  // pages would be measured rather than the parse: the heap keeps what it once held.
  mallopt(M_MMAP_THRESHOLD, 1 << 30);
  mallopt(M_TRIM_THRESHOLD, 1 << 30);
  constexpr std::size_t kSizes[] = {1, 8};
  std::printf("parse of adversarial shapes, ms per MB (best of %d), and ratio to the property file:\n",
              kRuns);
  std::printf("  %-30s %12s %7s %12s %7s\n", "shape", "1 MB", "ratio", "8 MB", "ratio");
  double baseline[2] = {0, 0};
  for (const Shape& shape : kShapes) {
    std::printf("  %-30s", shape.name);
    for (std::size_t i = 0; i < 2; ++i) {
      const std::string bytes = shape.make(kSizes[i] << 20);
      const WString text = Utf8ToWide(bytes);
      const double ms_per_mb =
          TimeShape(shape, text) * 1e3 / (static_cast<double>(bytes.size()) / (1 << 20));
      if (baseline[i] == 0) baseline[i] = ms_per_mb;
      std::printf(" %12.2f %7.2f", ms_per_mb, ms_per_mb / baseline[i]);
    }
    std::printf("\n");
  }
}

void MeasureSetString(const std::string& folder) {
  // The store finds its file below the data folder, which POSIX lets a process point elsewhere.
  setenv("ORLENDA_DATA_DIR", folder.c_str(), 1);
  constexpr int kGroups = 20;
  constexpr int kPerGroup = 15;
  {
    CPropertyHandler store(u"Bench.properties");
    for (int g = 0; g < kGroups; ++g) {
      for (int p = 0; p < kPerGroup; ++p) {
        std::string name = "NAVPRT" + std::to_string(g) + "/Setting" + std::to_string(p);
        if (!store.SetString(View(Utf8ToWide(name)), Utf8ToWide("value " + std::to_string(p)))) {
          std::printf("SetString failed while filling the store\n");
          std::exit(1);
        }
      }
    }
  }
  CPropertyHandler store(u"Bench.properties");
  constexpr int kChanges = 200;
  double best = 1e30;
  double total = 0;
  for (int i = 0; i < kChanges; ++i) {
    std::string name = "NAVPRT" + std::to_string(i % kGroups) + "/Setting" +
                       std::to_string((i * 7) % kPerGroup);
    WString path = Utf8ToWide(name);
    WString value = Utf8ToWide("changed " + std::to_string(i));
    Clock::time_point start = Clock::now();
    bool ok = store.SetString(View(path), value);
    double took = Seconds(Clock::now() - start);
    if (!ok) {
      std::printf("SetString failed\n");
      std::exit(1);
    }
    best = std::min(best, took);
    total += took;
  }
  std::printf("SetString on a store of %d properties in %d groups (file %s written each time):\n",
              kGroups * kPerGroup, kGroups, Narrow(View(store.file_path())).c_str());
  std::printf("  best %.1f us, mean %.1f us over %d changes\n", best * 1e6, total / kChanges * 1e6,
              kChanges);
}

}  // namespace
}  // namespace orlenda

int main(int argc, char** argv) {
  std::size_t megabytes = argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 32;
  if (megabytes == 0) megabytes = 32;
  namespace fs = std::filesystem;
  std::error_code error;
  const auto stamp = orlenda::Clock::now().time_since_epoch().count();
  fs::path folder = fs::temp_directory_path(error) / ("orlenda-bench-" + std::to_string(stamp));
  if (error || !fs::create_directory(folder, error)) {
    std::printf("cannot create a scratch folder\n");
    return 1;
  }
  orlenda::CompareLoading(folder.string(), megabytes);
  orlenda::MeasureSetString(folder.string());
  orlenda::MeasureShapes();
  fs::remove_all(folder, error);
  return 0;
}
