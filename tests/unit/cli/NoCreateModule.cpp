// SPDX-License-Identifier: GPL-3.0-or-later
// A library in the module directory that is no command module: it lacks create_instance.
extern "C" __attribute__((visibility("default"))) int morvel_test_not_a_module() { return 1; }
