<#
.SYNOPSIS
    Installs the kestmon print port monitor, or updates it.
.DESCRIPTION
    Copies kestmon.dll, slp64.dll and SLPConf.xml to the system folder, kestctl with copies of them
    to Program Files\kestmon, registers the monitor with the print spooler, and restarts the
    spooler. Ports that exist stay as they are, and so does an SLPConf.xml that was changed: the new
    one is then put beside it as SLPConf.xml.new.
.EXAMPLE
    powershell -ExecutionPolicy Bypass -File install.ps1
#>
#Requires -RunAsAdministrator
[CmdletBinding(SupportsShouldProcess)]
param()

Set-StrictMode -Version Latest
$ErrorActionPreference = 'Stop'

if (-not [Environment]::Is64BitProcess) {
    throw 'Run this with the 64-bit PowerShell: the monitor is a 64-bit library.'
}

$system = [Environment]::SystemDirectory
$program = Join-Path $env:ProgramFiles 'kestmon'
$monitor = 'HKLM:\SYSTEM\CurrentControlSet\Control\Print\Monitors\kestmon'
$libraries = 'kestmon.dll', 'slp64.dll'
$files = $libraries + 'kestctl.exe', 'uninstall.ps1', 'LICENSE'
$documents = 'README.md', 'CHANGELOG.md', 'CONTRIBUTING.md', 'SECURITY.md', 'docs'

foreach ($file in $files + $documents + 'SLPConf.xml') {
    if (-not (Test-Path -LiteralPath (Join-Path $PSScriptRoot $file))) {
        throw "$file is missing beside this script: unpack the whole archive first."
    }
}
if (-not $PSCmdlet.ShouldProcess($env:COMPUTERNAME, 'Install kestmon and restart the spooler')) {
    return
}

# A library or program that somebody still runs cannot be overwritten, but moved out of the way.
function Update-File([string] $File, [string] $Folder) {
    $target = Join-Path $Folder $File
    Remove-Item -LiteralPath "$target.old" -Force -ErrorAction SilentlyContinue
    if (Test-Path -LiteralPath $target) {
        Move-Item -LiteralPath $target -Destination "$target.old" -Force
    }
    Copy-Item -LiteralPath (Join-Path $PSScriptRoot $File) -Destination $target
    Remove-Item -LiteralPath "$target.old" -Force -ErrorAction SilentlyContinue
}

# The spooler holds the libraries open while it runs. Services that hang on it (fax, LPD) stop with
# it, and have to be started again.
$dependents = @((Get-Service -Name Spooler).DependentServices | Where-Object Status -eq 'Running')
Stop-Service -Name Spooler -Force
try {
    Wait-Process -Name spoolsv -Timeout 30 -ErrorAction SilentlyContinue
    foreach ($library in $libraries) {
        Update-File $library $system
    }
    $shipped = Join-Path $PSScriptRoot 'SLPConf.xml'
    $configuration = Join-Path $system 'SLPConf.xml'
    if (-not (Test-Path -LiteralPath $configuration)) {
        Copy-Item -LiteralPath $shipped -Destination $configuration
    } elseif ((Get-FileHash -LiteralPath $shipped).Hash -ne
              (Get-FileHash -LiteralPath $configuration).Hash) {
        Copy-Item -LiteralPath $shipped -Destination "$configuration.new" -Force
        Write-Warning "Kept your $configuration; the one of this release is SLPConf.xml.new beside it."
    }

    New-Item -ItemType Directory -Path $program -Force | Out-Null
    foreach ($file in $files) {
        Update-File $file $program
    }
    foreach ($document in $documents) {
        Copy-Item -LiteralPath (Join-Path $PSScriptRoot $document) -Destination $program -Recurse -Force
    }
    # For kestctl --direct, whose monitor is the one beside it.
    Copy-Item -LiteralPath $configuration -Destination $program -Force

    if (-not (Test-Path -LiteralPath $monitor)) {
        New-Item -Path $monitor | Out-Null
    }
    New-ItemProperty -Path $monitor -Name Driver -Value 'kestmon.dll' -PropertyType String -Force |
        Out-Null
} finally {
    Start-Service -Name Spooler
    foreach ($service in $dependents) {
        Start-Service -Name $service.Name
    }
}

Write-Output 'kestmon is installed. A first port, that follows the printer which is at 10.1.2.3 now:'
Write-Output "  & '$program\kestctl.exe' port add OFFICE --follow 10.1.2.3"
