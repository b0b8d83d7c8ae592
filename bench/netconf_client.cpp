#include "netconf_client.hpp"

#include <csignal>

#include <fcntl.h>
#include <libxml/parser.h>
#include <libxml/tree.h>
#include <libyang/libyang.h>
#include <nc_client.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <sstream>
#include <thread>

namespace tavrik::netconf::test {
namespace {

void client_init() {
    static std::once_flag once;
    std::call_once(once, [] {
        nc_client_init();
        nc_verbosity(NC_VERB_ERROR);
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
        reply.errors.push_back({child_value(node, "error-tag"), child_value(node, "error-message")});
    }
}

}  // namespace

Client::~Client() { nc_session_free(session_, nullptr); }

std::unique_ptr<Client> Client::unix_socket(const std::string& path) {
    // A daemon killed by a test closes the socket: writing then is an error
    // of the session, not a reason for the test to die.
    std::signal(SIGPIPE, SIG_IGN);
    client_init();
    nc_session* session = nc_connect_unix(path.c_str(), nullptr);
    if (!session) return nullptr;
    return std::unique_ptr<Client>(new Client(session));
}

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

Reply Client::commit() { return send(nc_rpc_commit(0, 0, nullptr, nullptr, NC_PARAMTYPE_CONST)); }




std::string antivirus(std::string_view body) {
    return "<antivirus xmlns=\"" + std::string(kModelNs) + "\">" + std::string(body) + "</antivirus>";
}

std::string profile_edit(std::string_view name, std::string_view body, std::string_view operation) {
    const std::string attribute = operation.empty() ? "" : " xmlns:nc=\"urn:ietf:params:xml:ns:netconf:base:1.0\""
                                                           " nc:operation=\"" + std::string(operation) + "\"";
    return antivirus("<vsys><name>vs1</name><profiles><profile" + attribute + "><name>" + std::string(name) +
                     "</name>" + std::string(body) + "</profile></profiles></vsys>");
}

// ---- Daemon -------------------------------------------------------------------

Daemon::Daemon() {
    char pattern[] = "/tmp/tkav-netconf-test-XXXXXX";
    if (!mkdtemp(pattern)) throw std::runtime_error("mkdtemp failed");
    dir_ = pattern;
    pid_file_ = dir_ + "/pid";
}

Daemon::~Daemon() {
    kill();
    std::error_code ec;
    std::filesystem::remove_all(dir_, ec);
}

std::vector<std::string> Daemon::command(const std::vector<std::string>& extra) const {
    std::vector<std::string> args{program_, "--state-dir", dir_, "--pid-file", pid_file_, "--no-ssh",
                                  "--sync", "no"};
    args.insert(args.end(), extra.begin(), extra.end());
    return args;
}

namespace {

pid_t spawn(const std::vector<std::string>& args, const std::string& log) {
    const pid_t pid = fork();
    if (pid != 0) return pid;
    const int err = ::open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    const int null = ::open("/dev/null", O_RDWR);
    dup2(null, STDIN_FILENO);
    dup2(null, STDOUT_FILENO);
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
    pid_ = spawn(command(extra), dir_ + "/stderr.log");
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

std::string Daemon::stderr_text() const {
    std::ifstream in(dir_ + "/stderr.log");
    std::stringstream out;
    out << in.rdbuf();
    return out.str();
}

}  // namespace tavrik::netconf::test
