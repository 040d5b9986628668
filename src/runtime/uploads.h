// POST bodies with file uploads: the upload limit, the HTTPFILES variable
// and the temporary copies of uploaded files, removed when the request ends.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "runtime/request.h"
#include "values/value.h"

struct Run;

// Largest POST body read, in bytes: CVML_MAX_UPLOAD (a number of bytes,
// optionally followed by K, M or G for powers of 1024), else 32 MiB.
constexpr size_t kDefaultMaxUpload = size_t(32) << 20;
size_t upload_limit();
// Files kept from one request; more are left out with a warning.
constexpr size_t kMaxUploadFiles = 1000;

// Where the temporary copies go: CVML_UPLOAD_DIR, else TMPDIR, else /tmp.
std::string upload_directory();

// Reads a multipart/form-data body: its text fields are added to `fields`
// (in body order) and its files are stored as temporary copies; returns the
// HTTPFILES hash (field name -> hash of "name", "type", "size", "path"), or
// null when no file came.  Problems leave warnings in the error report.
ValuePtr multipart_request(Run& run, std::string_view body, std::string_view content_type,
                           std::vector<RequestPair>* fields);

