# Asks the TALVORN locator of this machine, by way of talvorn.exe and its JSON. For Windows
# PowerShell 5.1 and later. ASCII only: 5.1 reads a script without mark in the ANSI code page.
Set-StrictMode -Version 2.0

# talvorn.exe beside the module, in the folder of the installation, or in PATH.
function Find-Tool {
    $candidates = @(
        (Join-Path $PSScriptRoot 'talvorn.exe'),
        (Join-Path (Split-Path -Parent $PSScriptRoot) 'talvorn.exe')
    )
    # A PowerShell of 32 bits has the folder for programs of 64 bits in ProgramW6432.
    foreach ($folder in @($env:ProgramW6432, $env:ProgramFiles)) {
        if ($folder) { $candidates += (Join-Path $folder 'TALVORN\talvorn.exe') }
    }
    foreach ($candidate in $candidates) {
        if (Test-Path -LiteralPath $candidate -PathType Leaf) { return $candidate }
    }
    $command = Get-Command -Name 'talvorn.exe' -CommandType Application -ErrorAction SilentlyContinue |
        Select-Object -First 1
    if ($command) { return $command.Path }
    throw (New-TalvornError 'TalvornToolNotFound' 'ObjectNotFound' ("talvorn.exe was not found: neither " +
        "beside the module, nor in '$(Join-Path $env:ProgramFiles 'TALVORN')', nor in PATH."))
}

function New-TalvornError($id, $category, $message) {
    New-Object System.Management.Automation.ErrorRecord @(
        (New-Object System.InvalidOperationException $message), $id,
        [System.Management.Automation.ErrorCategory]$category, $null)
}

# Runs talvorn.exe and hands on its lines as they come. The process is read directly, not by the
# pipeline of native programs: that would decode UTF-8 by [Console]::OutputEncoding, which belongs
# to the whole console and cannot be set without one. Waits in small steps, since PowerShell ends a
# pipeline only between two statements; with the pipeline the process ends.
function Invoke-Tool([string]$arguments) {
    $start = New-Object System.Diagnostics.ProcessStartInfo
    $start.FileName = Find-Tool
    $start.Arguments = $arguments
    $start.UseShellExecute = $false
    $start.CreateNoWindow = $true
    $start.RedirectStandardOutput = $true
    $start.RedirectStandardError = $true
    $start.StandardOutputEncoding = New-Object System.Text.UTF8Encoding $false
    $start.StandardErrorEncoding = New-Object System.Text.UTF8Encoding $false
    $process = New-Object System.Diagnostics.Process
    $process.StartInfo = $start
    $running = $false
    try {
        $running = $process.Start()
        $errors = $process.StandardError.ReadToEndAsync()
        while ($true) {
            $reading = $process.StandardOutput.ReadLineAsync()
            while (-not $reading.Wait(100)) { }
            if ($null -eq $reading.Result) { break }
            $reading.Result
        }
        $process.WaitForExit()
        $running = $false
        if ($process.ExitCode -ne 0) {
            $text = $errors.Result.Trim()
            if (-not $text) { $text = "talvorn.exe ended with status $($process.ExitCode)." }
            if ($process.ExitCode -eq 1) {
                throw (New-TalvornError 'TalvornFailed' 'ConnectionError' $text)
            }
            throw (New-TalvornError 'TalvornWrongUsage' 'InvalidArgument' $text)
        }
    }
    finally {
        if ($running) {
            try { $process.Kill() } catch { Write-Verbose "talvorn.exe has ended: $_" }
        }
        $process.Dispose()
    }
}

# The objects in a list such as {"devices":[{...},{...}]}, one at a time: ConvertFrom-Json of 5.1
# refuses a text of more than 2 MB. They hold texts and numbers, no further objects.
function ConvertFrom-List([string]$line) {
    $list = $line.Substring($line.IndexOf('[') + 1)
    foreach ($match in [regex]::Matches($list, '\{(?>[^{}"]+|"(?>[^"\\]+|\\.)*")*\}')) {
        ConvertFrom-Json -InputObject $match.Value
    }
}

function New-DeviceRecord($record) {
    $address = $record.ipv4
    if (-not $address) { $address = $record.ipv6 }
    [pscustomobject]@{
        PSTypeName = 'Talvorn.Device'
        Serial     = $record.serial
        Alias      = $record.alias
        Status     = $record.status
        Clip       = $record.clip
        Address    = $address
        IPv4       = $record.ipv4
        IPv6       = $record.ipv6
        HostAlias  = $record.hostAlias
        HostIPv4   = $record.hostIpv4
        HostIPv6   = $record.hostIpv6
    }
}

function New-ItemRecord($record) {
    [pscustomobject]@{
        PSTypeName = 'Talvorn.Item'
        Serial     = $record.serial
        Digest     = $record.digest
        HashLength = $record.hashLength
        Header     = $record.header
        NextOffset = $record.nextOffset
        Content    = $record.content
    }
}

function New-ChangeRecord($record) {
    # PowerShell 7 makes a date of the text by itself, 5.1 does not.
    $time = $record.time
    if ($time -isnot [datetime]) {
        $time = [datetime]::Parse($time, [Globalization.CultureInfo]::InvariantCulture,
            [Globalization.DateTimeStyles]::RoundtripKind)
    }
    $change = [pscustomobject]@{
        PSTypeName = 'Talvorn.Change'
        Time       = $time.ToLocalTime()
        Event      = $record.event
        Serial     = $null
        Device     = $null
        Before     = $null
        Item       = $null
    }
    $names = @($record.PSObject.Properties | ForEach-Object { $_.Name })
    if ($names -contains 'device') { $change.Device = New-DeviceRecord $record.device }
    if ($names -contains 'before') { $change.Before = New-DeviceRecord $record.before }
    if ($names -contains 'item') { $change.Item = New-ItemRecord $record.item }
    if ($change.Device) { $change.Serial = $change.Device.Serial }
    if ($change.Item) { $change.Serial = $change.Item.Serial }
    $change
}

# True when the text is like one of the patterns.
function Test-Like([string]$text, [string[]]$patterns) {
    foreach ($pattern in $patterns) {
        if ($text -like $pattern) { return $true }
    }
    $false
}

<#
.SYNOPSIS
The devices that the locator of this machine knows.
.DESCRIPTION
In ascending order of their serials. A locator that does not answer is a terminating error,
TalvornFailed.
.PARAMETER Serial
Serials to show; wildcards are allowed.
.PARAMETER Alias
Names to show; wildcards are allowed.
.EXAMPLE
Get-TalvornDevice -Alias 'Lathe*' | Where-Object Status -ne 'IDLE'
#>
function Get-TalvornDevice {
    [CmdletBinding()]
    param(
        [Parameter(Position = 0)]
        [SupportsWildcards()]
        [string[]]$Serial = '*',

        [Parameter(Position = 1)]
        [SupportsWildcards()]
        [string[]]$Alias = '*'
    )
    try {
        foreach ($line in @(Invoke-Tool 'devices --json')) {
            foreach ($record in ConvertFrom-List $line) {
                if ((Test-Like $record.serial $Serial) -and (Test-Like $record.alias $Alias)) {
                    New-DeviceRecord $record
                }
            }
        }
    }
    catch {
        $PSCmdlet.ThrowTerminatingError($_)
    }
}

<#
.SYNOPSIS
The items that devices have attached to their answers, newest first.
.PARAMETER Serial
Serials of the devices whose items to show; wildcards are allowed.
.EXAMPLE
Get-TalvornItem -Serial 1234567
#>
function Get-TalvornItem {
    [CmdletBinding()]
    param(
        [Parameter(Position = 0)]
        [SupportsWildcards()]
        [string[]]$Serial = '*'
    )
    try {
        foreach ($line in @(Invoke-Tool 'items --json')) {
            foreach ($record in ConvertFrom-List $line) {
                if (Test-Like $record.serial $Serial) { New-ItemRecord $record }
            }
        }
    }
    catch {
        $PSCmdlet.ThrowTerminatingError($_)
    }
}

<#
.SYNOPSIS
An object for every change of the devices and their items, until Ctrl-C.
.DESCRIPTION
Waits for a locator that is not there, and keeps one alive that was started with /dynamic.
.PARAMETER All
Begins with everything that is there already.
.EXAMPLE
Watch-TalvornDevice | Where-Object Event -eq 'device-gone' | ForEach-Object { $_.Device.Alias }
#>
function Watch-TalvornDevice {
    [CmdletBinding()]
    param(
        [switch]$All
    )
    $arguments = 'watch --json'
    if ($All) { $arguments += ' --all' }
    try {
        Invoke-Tool $arguments | ForEach-Object { New-ChangeRecord (ConvertFrom-Json -InputObject $_) }
    }
    catch {
        $PSCmdlet.ThrowTerminatingError($_)
    }
}

<#
.SYNOPSIS
The version of the locator that answers.
.EXAMPLE
(Get-TalvornVersion).Version -ge '1.0.0.0'
#>
function Get-TalvornVersion {
    [CmdletBinding()]
    param()
    try {
        foreach ($line in @(Invoke-Tool 'version --json')) {
            $record = ConvertFrom-Json -InputObject $line
            [pscustomobject]@{
                PSTypeName = 'Talvorn.Version'
                Version    = [version]$record.version
            }
        }
    }
    catch {
        $PSCmdlet.ThrowTerminatingError($_)
    }
}

Export-ModuleMember -Function Get-TalvornDevice, Get-TalvornItem, Watch-TalvornDevice, Get-TalvornVersion
