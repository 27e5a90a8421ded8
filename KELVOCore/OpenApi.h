// The OpenAPI 3.1 document of the API, built from the route table alone: one
// operation per documented (method, pattern), with its path and query
// parameters, request body, answers (200, 304, and every error status with
// the {"error","message"} schema listing the codes it can carry), the
// "X-KELVO-*" headers, and the bearer scheme with the scope each operation
// needs. Guarded rows gain 401 (and 403 for admin), throttled rows 429, every
// row 500.
//
// A pure function of the table; cost is linear in its rows.
#pragma once

#include "KELVOCore/Json.h"
#include "KELVOCore/RouteTable.h"

namespace kelvo {

// The schema of every error body; `codes` fills the "error" member's enum.
Json errorSchema(const std::vector<std::string>& codes);
Json openApiDocument(const RouteTable& table);

}  // namespace kelvo
