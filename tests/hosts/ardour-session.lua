-- SPDX-License-Identifier: GPL-3.0-or-later
-- Quenda in Ardour, headless (ardour7-lua). Two runs in separate processes:
--   ardour7-lua ardour-session.lua create SESSION_DIR FORMAT...
--     a track per format (LV2, VST3) with Quenda; values are set; for LV2 they are saved as
--     a preset, moved away, and the preset is loaded back (lilv restores the plug-in's state
--     and the ports); the session is saved.
--   ardour7-lua ardour-session.lua read SESSION_DIR
--     the session is loaded again, saved once more (so each plug-in writes its own state),
--     and for each Quenda prints "FORMAT index host-value plug-in-value" for all eight
--     parameters: Ardour's control and what the plug-in itself saved.

local mode, dir = arg[1], arg[2]
local name = "quenda"
local presetName = "quenda-host-test"

-- Plain values, none a default; the preset holds "saved", "moved" is what it replaces.
local saved = { -0.37, 0, 1, 1.25, -2.5, 1.75, 97.5, 7200 }
local moved = { 0.5, 1, 0, -3, 4, -1, 200, 10000 }
local ranges = { { -1, 1, 1 }, { 0, 1, 1 }, { 0, 1, 1 }, { -6, 6, 1 }, { -6, 6, 1 }, { -3, 3, 1 },
                 { 20, 300, 0.5 }, { 3000, 15000, 0.5 } }
local ids = { "tilt", "bypass", "lin_phase", "trim", "low", "high", "low_freq", "high_freq" }

-- VST3 hosts see 0..1 over the editor range and skew; LV2 ports are plain.
local function hostValue (format, index, plain)
	if format == "LV2" then return plain end
	local r = ranges[index]
	return ((plain - r[1]) / (r[2] - r[1])) ^ r[3]
end

local function fail (message)
	print ("FAIL: " .. message)
	io.stdout:flush ()
	os.exit (1)
end

local function pluginType (format)
	return format == "LV2" and ARDOUR.PluginType.LV2 or ARDOUR.PluginType.VST3
end

local function setAll (proc, format, values)
	for i = 1, 8 do
		if not ARDOUR.LuaAPI.set_processor_param (proc, i - 1, hostValue (format, i, values[i])) then
			fail (format .. ": cannot set parameter " .. ids[i])
		end
	end
end

if mode == "create" then
	local s = create_session (dir, name, 48000)
	if not s then fail ("cannot create a session in " .. dir) end

	for i = 3, #arg do
		local format = arg[i]
		local tracks = s:new_audio_track (2, 2, nil, 1, format, ARDOUR.PresentationInfo.max_order, ARDOUR.TrackMode.Normal, true)
		local id = format == "LV2" and "urn:selvane:quenda" or "Quenda"
		local proc = ARDOUR.LuaAPI.new_plugin (s, id, pluginType (format), "")
		if proc:isnil () then fail ("Ardour cannot load Quenda " .. format) end
		if tracks:front ():add_processor_by_index (proc, 0, nil, true) ~= 0 then fail ("cannot add Quenda " .. format) end
		local plugin = proc:to_insert ():plugin (0)

		setAll (proc, format, saved)

		-- Headless, Ardour 7.3 blocks for good in its restartComponent when a VST3 preset is
		-- loaded (the plug-in reports its new values from setComponentState); the VST3 state
		-- is restored by the reload alone.
		if format == "LV2" then
			local preset = plugin:save_preset (presetName)
			if preset.uri == "" then fail (format .. ": cannot save a preset") end
			setAll (proc, format, moved)
			if not plugin:load_preset (plugin:preset_by_label (presetName)) then fail (format .. ": cannot load the preset") end
		end
	end

	s:save_state ("", false, false, false, false, false)
	close_session ()
	print ("created")
	os.exit (0)
end

-- JUCE writes blocks as "<size>.<6-bit groups>", least significant bits first.
local function juceBase64 (text)
	local alphabet = ".ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+"
	local size, body = text:match ("^(%d+)%.(.*)$")
	if not size then return nil end
	local bytes = {}
	for i = 1, tonumber (size) do bytes[i] = 0 end
	for i = 1, #body do
		local v = alphabet:find (body:sub (i, i), 1, true) - 1
		for bit = 0, 5 do
			local position = (i - 1) * 6 + bit
			local byte = position // 8 + 1
			if byte <= #bytes and (v >> bit) & 1 == 1 then
				bytes[byte] = bytes[byte] | (1 << (position % 8))
			end
		end
	end
	local out = {}
	for i = 1, #bytes do out[i] = string.char (bytes[i]) end
	return table.concat (out)
end

local function standardBase64 (text)
	local alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/"
	text = text:gsub ("[^%w%+/]", "")
	local out, buffer, bits = {}, 0, 0
	for i = 1, #text do
		buffer = (buffer << 6) | (alphabet:find (text:sub (i, i), 1, true) - 1)
		bits = bits + 6
		if bits >= 8 then
			bits = bits - 8
			out[#out + 1] = string.char ((buffer >> bits) & 0xff)
		end
	end
	return table.concat (out)
end

-- The eight values of a Quenda state block found in a decoded blob.
local function blockValues (blob)
	local params = blob and blob:match ("<Params [^>]*/>")
	if not params then return nil end
	local values = {}
	for i = 1, 8 do values[i] = tonumber (params:match (" " .. ids[i] .. "=\"([^\"]*)\"")) end
	return values
end

local function readFile (path)
	local file = io.open (path, "rb")
	if not file then return nil end
	local text = file:read ("a")
	file:close ()
	return text
end

-- What the plug-in saved in the session: LV2 in its newest state folder, VST3 as a preset
-- chunk in the XML (the state block sits inside it).
local function pluginValues (format, proc, sessionXml)
	local id = proc:to_stateful ():id ():to_s ()
	if format == "LV2" then
		local newest = -1
		for n = 1, 100 do
			if readFile (dir .. "/plugins/" .. id .. "/state" .. n .. "/state.ttl") then newest = n end
		end
		local ttl = readFile (dir .. "/plugins/" .. id .. "/state" .. newest .. "/state.ttl")
		local text = ttl and ttl:match ("StateString> \"([^\"]*)\"")
		return blockValues (text and juceBase64 (text))
	end
	local node = sessionXml:match ("<Processor id=\"" .. id .. "\".-</Processor>")
	local chunk = node and node:match ("<chunk>([^<]*)</chunk>")
	return blockValues (chunk and standardBase64 (chunk))
end

if mode == "read" then
	local s = load_session (dir, name)
	if not s then fail ("cannot load the session in " .. dir) end
	s:save_state ("", false, false, false, false, false)
	local xml = readFile (dir .. "/" .. name .. ".ardour")
	local found = 0

	for route in s:get_routes ():iter () do
		local format = route:name ()
		local proc = route:nth_plugin (0)
		if (format == "LV2" or format == "VST3") and not proc:isnil () then
			found = found + 1
			local values = pluginValues (format, proc, xml)
			if not values then fail (format .. ": no Quenda state found in the session") end
			for i = 1, 8 do
				local host = ARDOUR.LuaAPI.get_processor_param (proc, i - 1, true)
				print (string.format ("%s %s %.9g %.9g %.9g", format, ids[i], host, hostValue (format, i, values[i]), hostValue (format, i, saved[i])))
			end
		end
	end

	close_session ()
	if found == 0 then fail ("no Quenda in the session") end
	os.exit (0)
end

fail ("usage: ardour-session.lua create|read SESSION_DIR [FORMAT...]")
