#pragma once

class Bridge;

// "mcpServers", "mcpReadConfig", "mcpWriteConfig" and "mcpCall": the web
// application's way to the local MCP servers. Each request gets exactly one
// reply; listing and calling reply from the registry's completions.
void registerMcpActions(Bridge& bridge);
