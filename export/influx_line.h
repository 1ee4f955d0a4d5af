// The text rules of Influx lines as InfluxDB 1.x reads them, and the rule
// that sorts an event type into one of the four measurements. See
// docs/INFLUX.md for the whole mapping of records to points.
// Stage: writer.
#pragma once

#include <string>
#include <string_view>

struct nmb_type_definition_t;

// A tag key, tag value or field key: ',', '=' and ' ' are escaped with a
// backslash; a line break becomes the two characters "\n" ("\r" likewise),
// since no escape keeps one inside a tag. Other backslashes are written as
// they are (the server keeps them), except trailing ones, which would escape
// the separator that follows and are left out.
void nmb_influx_append_key(std::string& out, std::string_view text);

// A string field value in double quotes: '"' and '\' are escaped; every other
// byte, line breaks included, is written as it is.
void nmb_influx_append_string(std::string& out, std::string_view text);

// The measurement of a type's records: "hca_port_counters",
// "hca_counters", "cpu_counters" or "node_counters", decided by the words of
// the type name and then of its field names.
const char* nmb_influx_measurement(const nmb_type_definition_t& type);
