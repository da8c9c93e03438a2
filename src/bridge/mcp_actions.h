#pragma once

class Bridge;
class ClientMcp;

// "mcpServers", "mcpReadConfig", "mcpWriteConfig" and "mcpCall": the web
// application's way to the local MCP servers of mcp. Each request gets
// exactly one reply; listing and calling reply from the registry's
// completions. mcp must live as long as the bridge.
void registerMcpActions(Bridge& bridge, ClientMcp& mcp);
