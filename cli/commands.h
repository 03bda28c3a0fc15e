// Every command's entry point: argv[1] is the command's name.
#ifndef QXCRL_CLI_COMMANDS_H
#define QXCRL_CLI_COMMANDS_H

namespace qxcli {

int show_command(int argc, char** argv);
int verify_command(int argc, char** argv);
int status_command(int argc, char** argv);
int hash_command(int argc, char** argv);
int create_command(int argc, char** argv);
int revoke_command(int argc, char** argv);
int next_update_command(int argc, char** argv);
int fetch_command(int argc, char** argv);
int store_command(int argc, char** argv);
int stored_command(int argc, char** argv);
int demo_command(int argc, char** argv);
int convert_command(int argc, char** argv);
int rehash_command(int argc, char** argv);

} // namespace qxcli

#endif
