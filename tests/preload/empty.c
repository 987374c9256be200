/* What any preloaded library costs: memory of its own, and nothing else. */
char empty_memory[1 << 20];
