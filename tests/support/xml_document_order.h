// Test support: every element of a document in document order, through the index links alone
// (no cursor, no recursion), and the index as a comparable snapshot.
#pragma once

#include <array>
#include <cstddef>
#include <unordered_map>
#include <vector>

#include "settings/xml_document.h"

namespace orlenda::testing {

// Stops after `limit` + 1 elements, so that an index whose links loop cannot hang the caller; a
// result longer than `limit` tells the caller they do.
inline std::vector<XmlDocument::ElementId> DocumentOrder(const XmlDocument& doc,
                                                         std::size_t limit = static_cast<std::size_t>(-1)) {
  std::vector<XmlDocument::ElementId> order;
  XmlDocument::ElementId id = doc.Links(0).first_child;
  while (id != 0 && order.size() <= limit) {
    order.push_back(id);
    const XmlDocument::ElementLinks links = doc.Links(id);
    if (links.first_child != 0) {
      id = links.first_child;
      continue;
    }
    while (id != 0 && doc.Links(id).next_sibling == 0) id = doc.Links(id).parent;
    if (id != 0) id = doc.Links(id).next_sibling;
  }
  return order;
}

// Each element in document order as the index sees it: offset, start tag and total length,
// ill-formed flag, then parent, first child, next and previous sibling as positions in document
// order (-1: none, -2: a link out of the tree), so that two indexes built in different ways (an
// edited document and a fresh parse of its text) can be compared. The links must not loop.
inline std::vector<std::array<long long, 8>> Snapshot(const XmlDocument& doc) {
  const std::vector<XmlDocument::ElementId> order = DocumentOrder(doc);
  std::unordered_map<XmlDocument::ElementId, long long> position{{0, -1}};
  for (std::size_t i = 0; i < order.size(); ++i) position[order[i]] = static_cast<long long>(i);
  auto ordinal = [&](XmlDocument::ElementId id) { return position.count(id) ? position[id] : -2; };
  std::vector<std::array<long long, 8>> out;
  for (XmlDocument::ElementId id : order) {
    const auto links = doc.Links(id);
    out.push_back({static_cast<long long>(doc.ElementRange(id).offset),
                   static_cast<long long>(doc.StartTagRange(id).length),
                   static_cast<long long>(doc.ElementRange(id).length), doc.IsIllFormed(id),
                   ordinal(links.parent), ordinal(links.first_child), ordinal(links.next_sibling),
                   ordinal(links.prev_sibling)});
  }
  return out;
}

}  // namespace orlenda::testing
