// The tessel program's commands, each a main() of its own over the full argument list
// (argv[1] is the command's name).
#pragma once

int cmdGenkey(int argc, char** argv);
int cmdReq(int argc, char** argv);
int cmdCa(int argc, char** argv);
int cmdCms(int argc, char** argv);
int cmdTs(int argc, char** argv);
int cmdPkcs12(int argc, char** argv);
