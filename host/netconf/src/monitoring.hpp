// The server's view of itself: ietf-netconf-monitoring (RFC 6022) and
// ietf-yang-library (RFC 8525), built from the registry of sessions and the
// datastores the Datastore serves. Internal to tkav-netconfd.
#pragma once

struct lyd_node;

namespace tavrik::netconf::detail {

struct Service;

// /ietf-netconf-monitoring:netconf-state: capabilities, datastores and their
// locks, schemas, sessions and statistics. Caller frees (lyd_free_siblings).
lyd_node* monitoring_data(const Service& service);

// /nc-notifications:netconf/streams (RFC 5277): the NETCONF stream and its
// replay log. Caller frees.
lyd_node* streams_data(const Service& service);

// ietf-yang-library as libyang reports it, with the datastore list RFC 8525
// asks for: every datastore served, with the one schema they all have.
// Caller frees.
lyd_node* library_data(const Service& service);

}  // namespace tavrik::netconf::detail
