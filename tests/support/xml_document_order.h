// Test support: every element of a document in document order, through the index links alone
// (no cursor, no recursion). Stops after `limit` + 1 elements, so that an index whose links loop
// cannot hang the caller; a result longer than `limit` tells the caller they do.
#pragma once

#include <cstddef>
#include <vector>

#include "settings/xml_document.h"

namespace orlenda::testing {

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

}  // namespace orlenda::testing
