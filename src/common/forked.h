#pragma once

/// @return a number that differs in a forked child from that of its parent. Cheap
unsigned fork_generation();
