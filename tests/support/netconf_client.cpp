#include "netconf_client.hpp"

#include <csignal>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <libxml/parser.h>
#include <libxml/tree.h>
#include <libyang/libyang.h>
#include <nc_client.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <sstream>
#include <thread>

namespace tavrik::netconf::test {
namespace {

// Client errors go to stderr, except those of schemas the daemon does not
// have (the client asks for optional ones).
void print_client_log(const nc_session*, NC_VERB_LEVEL level, const char* message) {
    if (level == NC_VERB_ERROR && !std::strstr(message, "<get-schema>")) std::fprintf(stderr, "client: %s\n", message);
}

void client_init() {
    static std::once_flag once;
    std::call_once(once, [] {
        nc_client_init();
        nc_verbosity(NC_VERB_ERROR);
        nc_set_print_clb_session(print_client_log);
    });
}

std::string any_text(const lyd_node* node) {
    char* text = nullptr;
    if (lyd_any_value_str(node, &text) != LY_SUCCESS || !text) return {};
    std::string out(text);
    std::free(text);
    return out;
}

std::string child_value(const lyd_node* parent, std::string_view name) {
    for (const lyd_node* c = lyd_child(parent); c; c = c->next)
        if (name == LYD_NAME(c)) return lyd_get_value(c) ? lyd_get_value(c) : "";
    return {};
}

void read_errors(const lyd_node* node, Reply& reply) {
    for (; node; node = node->next) {
        const std::string_view name = LYD_NAME(node);
        reply.ok |= name == "ok";
        if (name != "rpc-error") {
            read_errors(lyd_child(node), reply);
            continue;
        }
        ErrorReport report{child_value(node, "error-tag"), child_value(node, "error-message"), {}};
        for (const lyd_node* c = lyd_child(node); c; c = c->next)
            if (std::string_view(LYD_NAME(c)) == "error-info") report.session_id = child_value(c, "session-id");
        reply.errors.push_back(report);
    }
}

// Walks the elements of an XML text (several top-level elements allowed).
void for_each_element(std::string_view xml, const std::function<void(xmlNode*)>& visit) {
    const std::string wrapped = "<wrapped-for-test>" + std::string(xml) + "</wrapped-for-test>";
    xmlDoc* doc = xmlReadMemory(wrapped.data(), static_cast<int>(wrapped.size()), nullptr, nullptr, XML_PARSE_NONET);
    if (!doc) {
        ADD_FAILURE() << "not XML: " << xml;
        return;
    }
    const std::function<void(xmlNode*)> walk = [&](xmlNode* node) {
        for (; node; node = node->next) {
            if (node->type != XML_ELEMENT_NODE) continue;
            visit(node);
            walk(node->children);
        }
    };
    walk(xmlDocGetRootElement(doc)->children);
    xmlFreeDoc(doc);
}

std::string node_text(xmlNode* node) {
    xmlChar* text = xmlNodeGetContent(node);
    std::string out = text ? reinterpret_cast<const char*>(text) : "";
    xmlFree(text);
    return out;
}

}  // namespace

const ErrorReport& Reply::error() const {
    static const ErrorReport none;
    if (errors.empty()) {
        ADD_FAILURE() << "expected an rpc-error";
        return none;
    }
    return errors.front();
}

Client::~Client() {
    nc_session_free(session_, nullptr);
    for (const int fd : fds_)
        if (fd >= 0) ::close(fd);
}

std::unique_ptr<Client> Client::unix_socket(const std::string& path) {
    // A daemon killed by a test closes the socket: writing then is an error
    // of the session, not a reason for the test to die.
    std::signal(SIGPIPE, SIG_IGN);
    client_init();
    nc_session* session = nc_connect_unix(path.c_str(), nullptr);
    if (!session) return nullptr;
    return std::unique_ptr<Client>(new Client(session));
}

std::unique_ptr<Client> Client::inout(int from_server, int to_server) {
    client_init();
    nc_session* session = nc_connect_inout(from_server, to_server, nullptr);
    if (!session) {
        ::close(from_server);
        ::close(to_server);
        return nullptr;
    }
    return std::unique_ptr<Client>(new Client(session, from_server, to_server));
}

std::uint32_t Client::id() const { return nc_session_get_id(session_); }

Reply Client::send(nc_rpc* rpc) {
    Reply reply;
    std::uint64_t msgid = 0;
    if (!rpc || nc_send_rpc(session_, rpc, 10000, &msgid) != NC_MSG_RPC) {
        nc_rpc_free(rpc);
        return reply;
    }
    lyd_node* envp = nullptr;
    lyd_node* op = nullptr;
    NC_MSG_TYPE type;
    do {
        type = nc_recv_reply(session_, rpc, msgid, 60000, &envp, &op);
    } while (type == NC_MSG_NOTIF);
    if (type == NC_MSG_REPLY) {
        read_errors(envp, reply);
        for (const lyd_node* c = op ? lyd_child(op) : nullptr; c; c = c->next)
            if (std::string_view(LYD_NAME(c)) == "data") reply.data = any_text(c);
    }
    lyd_free_all(envp);
    lyd_free_all(op);
    nc_rpc_free(rpc);
    return reply;
}

Reply Client::edit(std::string_view config, std::string_view target) {
    const std::string content(config);
    return send(nc_rpc_edit(target == "candidate" ? NC_DATASTORE_CANDIDATE : NC_DATASTORE_RUNNING, NC_RPC_EDIT_DFLTOP_MERGE, NC_RPC_EDIT_TESTOPT_TESTSET,
                            NC_RPC_EDIT_ERROPT_UNKNOWN, content.c_str(), NC_PARAMTYPE_DUP_AND_FREE));
}

Reply Client::get_config() {
    return send(nc_rpc_getconfig(NC_DATASTORE_RUNNING, nullptr, NC_WD_UNKNOWN, NC_PARAMTYPE_CONST));
}

Reply Client::get(std::string_view filter) {
    const std::string f(filter);
    return send(nc_rpc_get(f.empty() ? nullptr : f.c_str(), NC_WD_UNKNOWN, NC_PARAMTYPE_DUP_AND_FREE));
}

Reply Client::lock() { return send(nc_rpc_lock(NC_DATASTORE_RUNNING)); }
Reply Client::commit() { return send(nc_rpc_commit(0, 0, nullptr, nullptr, NC_PARAMTYPE_CONST)); }

Reply Client::close() {
    return send(nc_rpc_act_generic_xml("<close-session xmlns=\"urn:ietf:params:xml:ns:netconf:base:1.0\"/>",
                                       NC_PARAMTYPE_CONST));
}

std::string Client::running() {
    const Reply reply = get_config();
    EXPECT_TRUE(reply.data) << "no <data> in the get-config reply";
    return reply.data.value_or("");
}

// A leaf of the daemon's own <appliance> state.
static std::optional<std::string> appliance_leaf(Client& client, const std::string& name) {
    const Reply reply = client.get("<appliance xmlns=\"" + std::string(kDaemonNs) + "\"><" + name + "/></appliance>");
    EXPECT_TRUE(reply.data) << "no <data> in the get reply";
    return element_text(reply.data.value_or(""), name);
}

std::string Client::appliance_configuration() { return appliance_leaf(*this, "running-configuration").value_or(""); }
std::uint64_t Client::lines_received() { return std::stoull(appliance_leaf(*this, "lines-received").value_or("0")); }

// ---- RawSession ---------------------------------------------------------------

std::unique_ptr<RawSession> RawSession::unix_socket(const std::string& path) {
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
    if (fd < 0 || ::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        if (fd >= 0) ::close(fd);
        return nullptr;
    }
    return std::make_unique<RawSession>(fd, ::dup(fd));
}

RawSession::RawSession(int from_server, int to_server) : from_(from_server), to_(to_server) {}

RawSession::~RawSession() {
    ::close(from_);
    ::close(to_);
}

void RawSession::write(std::string_view bytes) {
    // The daemon may end the session halfway; what it did not take is lost.
    for (std::size_t done = 0; done < bytes.size();) {
        const ssize_t n = ::write(to_, bytes.data() + done, bytes.size() - done);
        if (n <= 0) return;
        done += static_cast<std::size_t>(n);
    }
}

std::string RawSession::hello(std::string_view version) {
    write("<hello xmlns=\"urn:ietf:params:xml:ns:netconf:base:1.0\"><capabilities><capability>"
          "urn:ietf:params:netconf:base:" + std::string(version) + "</capability></capabilities></hello>]]>]]>");
    const std::string reply = receive();
    chunked_ = version == "1.1";
    return reply;
}

std::string RawSession::rpc(std::string_view body) {
    const std::string message =
        "<rpc xmlns=\"urn:ietf:params:xml:ns:netconf:base:1.0\" message-id=\"1\">" + std::string(body) + "</rpc>";
    write(chunked_ ? "\n#" + std::to_string(message.size()) + "\n" + message + "\n##\n" : message + "]]>]]>");
    return receive();
}

std::string RawSession::receive() {
    const std::string_view end = chunked_ ? "\n##\n" : "]]>]]>";
    char buffer[4096];
    while (in_.find(end) == std::string::npos) {
        const ssize_t n = ::read(from_, buffer, sizeof buffer);
        if (n <= 0) return {};
        in_.append(buffer, static_cast<std::size_t>(n));
    }
    const std::size_t at = in_.find(end);
    std::string message = in_.substr(0, at);
    in_.erase(0, at + end.size());
    if (!chunked_) return message;
    // Chunk headers out: "\n#<size>\n" before each chunk.
    std::string content;
    for (std::size_t pos = 0; (pos = message.find("\n#", pos)) != std::string::npos;) {
        const std::size_t data = message.find('\n', pos + 2) + 1;
        const std::size_t size = std::stoul(message.substr(pos + 2, data - pos - 3));
        content += message.substr(data, size);
        pos = data + size;
    }
    return content;
}

bool RawSession::ended() {
    pollfd p{from_, POLLIN, 0};
    char buffer[4096];
    while (::poll(&p, 1, 30000) > 0) {
        if (::read(from_, buffer, sizeof buffer) <= 0) return true;
    }
    return false;
}

std::string antivirus(std::string_view body) {
    return "<antivirus xmlns=\"" + std::string(kModelNs) + "\">" + std::string(body) + "</antivirus>";
}

std::string profile_edit(std::string_view name, std::string_view body, std::string_view operation) {
    const std::string attribute = operation.empty() ? "" : " xmlns:nc=\"urn:ietf:params:xml:ns:netconf:base:1.0\""
                                                           " nc:operation=\"" + std::string(operation) + "\"";
    return antivirus("<vsys><name>vs1</name><profiles><profile" + attribute + "><name>" + std::string(name) +
                     "</name>" + std::string(body) + "</profile></profiles></vsys>");
}

std::optional<std::string> element_text(std::string_view xml, std::string_view name) {
    std::optional<std::string> found;
    for_each_element(xml, [&](xmlNode* node) {
        if (!found && name == reinterpret_cast<const char*>(node->name)) found = node_text(node);
    });
    return found;
}

std::size_t count_elements(std::string_view xml, std::string_view name) {
    std::size_t n = 0;
    for_each_element(xml, [&](xmlNode* node) { n += name == reinterpret_cast<const char*>(node->name); });
    return n;
}

// ---- Daemon -------------------------------------------------------------------

Daemon::Daemon() {
    char pattern[] = "/tmp/tkav-netconf-test-XXXXXX";
    if (!mkdtemp(pattern)) throw std::runtime_error("mkdtemp failed");
    dir_ = pattern;
    pid_file_ = dir_ + "/pid";
}

Daemon::Daemon(const std::string& shared_state_dir)
    : dir_(shared_state_dir), owns_dir_(false), pid_file_(shared_state_dir + "/pid-second") {}

Daemon::~Daemon() {
    kill();
    if (stdio_pid_ > 0) {
        ::kill(stdio_pid_, SIGKILL);
        waitpid(stdio_pid_, nullptr, 0);
    }
    std::error_code ec;
    if (owns_dir_) std::filesystem::remove_all(dir_, ec);
}

std::vector<std::string> Daemon::command(const std::vector<std::string>& extra) const {
    std::vector<std::string> args{program_, "--state-dir", dir_, "--pid-file", pid_file_, "--no-ssh",
                                  "--sync", "no"};
    args.insert(args.end(), extra.begin(), extra.end());
    return args;
}

namespace {

pid_t spawn(const std::vector<std::string>& args, const std::string& log, int in, int out) {
    const pid_t pid = fork();
    if (pid != 0) return pid;
    const int err = ::open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    const int null = ::open("/dev/null", O_RDWR);
    dup2(in >= 0 ? in : null, STDIN_FILENO);
    dup2(out >= 0 ? out : null, STDOUT_FILENO);
    dup2(err, STDERR_FILENO);
    for (int fd = 3; fd < 1024; ++fd) ::close(fd);
    std::vector<char*> argv;
    for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    execv(argv[0], argv.data());
    _exit(127);
}

int wait_exit(pid_t pid, std::chrono::seconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    int status = 0;
    while (waitpid(pid, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() > deadline) {
            ::kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            return -1;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

bool Daemon::launch(const std::vector<std::string>& extra) {
    if (pid_ > 0) return false;
    ::unlink(pid_file_.c_str());  // left by a killed daemon
    pid_ = spawn(command(extra), dir_ + "/stderr.log", -1, -1);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    struct stat st {};
    while (::stat(pid_file_.c_str(), &st) != 0) {
        if (waitpid(pid_, nullptr, WNOHANG) == pid_) {
            pid_ = -1;
            return false;
        }
        if (std::chrono::steady_clock::now() > deadline) {
            kill();
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

void Daemon::start(const std::vector<std::string>& extra) {
    ASSERT_TRUE(launch(extra)) << "tkav-netconfd did not come up:\n" << stderr_text();
}

int Daemon::stop() {
    if (pid_ <= 0) return -1;
    ::kill(pid_, SIGTERM);
    const int status = wait_exit(pid_, std::chrono::seconds(30));
    pid_ = -1;
    return status;
}

void Daemon::kill() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
}

bool Daemon::stdio_pipes(const std::vector<std::string>& extra, int& from_daemon, int& to_daemon) {
    int in[2], out[2];
    if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) return false;
    std::vector<std::string> args = command(extra);
    args.push_back("--stdio");
    stdio_pid_ = spawn(args, dir_ + "/stderr.log", in[0], out[1]);
    ::close(in[0]);
    ::close(out[1]);
    from_daemon = out[0];
    to_daemon = in[1];
    return true;
}

std::unique_ptr<Client> Daemon::stdio_session(const std::vector<std::string>& extra) {
    int from = -1, to = -1;
    return stdio_pipes(extra, from, to) ? Client::inout(from, to) : nullptr;
}

std::unique_ptr<RawSession> Daemon::stdio_raw(const std::vector<std::string>& extra) {
    int from = -1, to = -1;
    return stdio_pipes(extra, from, to) ? std::make_unique<RawSession>(from, to) : nullptr;
}

int Daemon::wait_stdio() {
    if (stdio_pid_ <= 0) return -1;
    const int status = wait_exit(stdio_pid_, std::chrono::seconds(30));
    stdio_pid_ = -1;
    return status;
}

std::string Daemon::stderr_text() const {
    std::ifstream in(dir_ + "/stderr.log");
    std::stringstream out;
    out << in.rdbuf();
    return out.str();
}

}  // namespace tavrik::netconf::test
