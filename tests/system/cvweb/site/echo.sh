#!/bin/sh
# Answers a POST with its method, content type and the body it received.
printf 'Content-Type: text/plain\r\n\r\n'
printf 'method=%s type=%s\n' "$REQUEST_METHOD" "$CONTENT_TYPE"
head -c "${CONTENT_LENGTH:-0}"
